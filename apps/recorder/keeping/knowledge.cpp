#include "knowledge.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <kltlibs/kel.h>
#include <kltlibs/kelrecord.h>
#include <kltlibs/msgfmt.h>
#include <memory>

namespace {

struct KelDeleter {
    void operator()(Kel *kel) const { Kel_Free(kel); }
};

// Null unless record is a whole, valid one.
std::unique_ptr<Kel, KelDeleter> MakeKel(std::string_view record)
{
    void *copy = std::malloc(record.size() + 1);
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, record.data(), record.size());
    Kel *kel = nullptr;
    if (Kel_MakeKel(copy, static_cast<std::uint32_t>(record.size()), &kel) != 0) std::free(copy);
    return std::unique_ptr<Kel, KelDeleter>(kel);
}

// The argument at index of a record that is valid.
std::string ArgumentText(const char *record, std::uint32_t index)
{
    const void *area = KelRecord_ArgumentArea(record);
    MsgFmtArg argument;
    MsgFmt_GetArg(area, index, &argument);
    switch (argument.type) {
    case MSGFMT_TYPE_INT32:
        return std::to_string(static_cast<std::int32_t>(argument.value));
    case MSGFMT_TYPE_UINT32:
        return std::to_string(static_cast<std::uint32_t>(argument.value));
    case MSGFMT_TYPE_INT64:
        return std::to_string(static_cast<std::int64_t>(argument.value));
    case MSGFMT_TYPE_UINT64:
        return std::to_string(argument.value);
    case MSGFMT_TYPE_STRING: {
        const char *text = nullptr;
        int error = MsgFmt_GetSwizzledString(area, KelRecord_ArgumentCount(record), index,
                                             KelRecord_End(record), &text);
        return error == 0 && text != nullptr ? text : "(null)";
    }
    default:
        return "???";
    }
}

constexpr int kUuidNumbers = 9; // a UUID travels as so many in an observation, as one text in an event

std::string UuidText(const char *record, std::uint32_t index)
{
    std::uint32_t n[kUuidNumbers];
    for (std::uint32_t i = 0; i < kUuidNumbers; i++) {
        MsgFmtArg argument;
        MsgFmt_GetArg(KelRecord_ArgumentArea(record), index + i, &argument);
        n[i] = static_cast<std::uint32_t>(argument.value);
    }
    return fmt::format("{:08x}-{:08x}-{:04x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}", n[0], n[1],
                       n[2] & 0xFFFF, n[3] & 0xFF, n[4] & 0xFF, n[5] & 0xFF, n[6] & 0xFF, n[7] & 0xFF,
                       n[8] & 0xFF);
}

// Where the argument called name begins; -1 without one.
int ArgumentIndex(const std::vector<CatalogueArgument> &arguments, const std::string &name, int uuidWidth)
{
    int index = 0;
    for (const CatalogueArgument &argument : arguments) {
        if (argument.name == name) return index;
        index += argument.type == "uuid" ? uuidWidth : 1;
    }
    return -1;
}

std::string Joined(const EventRecord &event, const std::vector<int> &arguments)
{
    std::string joined;
    for (int index : arguments) {
        auto at = static_cast<size_t>(index);
        if (at < event.arguments.size()) joined += event.arguments[at].ToText();
        joined += '\x1f';
    }
    return joined;
}

} // namespace

Knowledge::Knowledge(const std::optional<Catalogue> &catalogue)
{
    if (!catalogue) return;
    for (const CatalogueObservation &observation : catalogue->observations) {
        auto object =
            std::ranges::find(observation.arguments, observation.object, &CatalogueArgument::name);
        if (object != observation.arguments.end())
            mObservations[observation.id] = {
                ArgumentIndex(observation.arguments, observation.object, kUuidNumbers),
                object->type == "uuid"};
    }
    auto indices = [](const CatalogueEvent &event, const std::vector<std::string> &names) {
        std::vector<int> list;
        for (const std::string &name : names)
            list.push_back(ArgumentIndex(event.arguments, name, 1));
        return list;
    };
    for (const CatalogueEvent &entry : catalogue->events) {
        Event &event = mEvents[entry.type];
        event.object = ArgumentIndex(entry.arguments, entry.object, 1);
        event.clearable = !entry.clearedBy.empty();
        event.pairedOn = indices(entry, entry.pairedOn);
        for (const std::string &type : entry.clears)
            if (const CatalogueEvent *problem = catalogue->Find(type))
                event.ends.push_back({type, indices(entry, problem->pairedOn)});
    }
}

const Knowledge::Event *Knowledge::Find(std::string_view type) const
{
    auto found = mEvents.find(type);
    return found == mEvents.end() ? nullptr : &found->second;
}

std::optional<ObjectArgument> Knowledge::ObjectOf(std::string_view observationId,
                                                  std::string_view record) const
{
    auto found = mObservations.find(observationId);
    if (found == mObservations.end()) return std::nullopt;
    const auto &[argument, isUuid] = found->second;
    auto index = static_cast<std::uint32_t>(argument);
    auto kel = MakeKel(record);
    if (!kel || index + (isUuid ? kUuidNumbers : 1) > KelRecord_ArgumentCount(record.data()))
        return std::nullopt;
    return ObjectArgument{isUuid ? UuidText(record.data(), index) : ArgumentText(record.data(), index),
                          argument};
}

std::optional<ObjectArgument> Knowledge::ObjectOf(const EventRecord &event) const
{
    const Event *known = Find(event.typeId);
    if (known == nullptr || known->object < 0) return std::nullopt;
    auto at = static_cast<size_t>(known->object);
    if (at >= event.arguments.size()) return std::nullopt;
    return ObjectArgument{event.arguments[at].ToText(), known->object};
}

bool Knowledge::IsClearable(std::string_view problemType) const
{
    const Event *known = Find(problemType);
    return known != nullptr && known->clearable;
}

std::string Knowledge::PairingOf(const EventRecord &problem) const
{
    const Event *known = Find(problem.typeId);
    return known == nullptr ? "" : Joined(problem, known->pairedOn);
}

std::vector<Knowledge::Ended> Knowledge::EndedBy(const EventRecord &clear) const
{
    std::vector<Ended> ended;
    if (const Event *known = Find(clear.typeId))
        for (const Event::Ends &ends : known->ends)
            ended.push_back({ends.type, Joined(clear, ends.pairedOn)});
    return ended;
}

std::vector<std::string> ArgumentTexts(std::string_view record)
{
    std::vector<std::string> texts;
    if (auto kel = MakeKel(record))
        for (std::uint32_t i = 0; i < KelRecord_ArgumentCount(record.data()); i++)
            texts.push_back(ArgumentText(record.data(), i));
    return texts;
}
