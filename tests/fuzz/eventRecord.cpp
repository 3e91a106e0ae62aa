// Event records as the receiver might meet them, if something other than the daemon wrote to it.
//
// What is decoded is encoded again, and must then decode to the same.
#include "fuzz.h"

#include <cstring>
#include <eventRecord.h>
#include <kltlibs/msgfmt.h>

namespace {

template <class Word> void Append(std::string &bytes, Word word)
{
    bytes.append(reinterpret_cast<const char *>(&word), sizeof word);
}

// The format's description, followed word by word.
std::string Encode(const EventRecord &event)
{
    std::string entries, texts;
    for (const EventArgument &argument : event.arguments) {
        Append(entries, argument.type);
        const auto *text = std::get_if<std::optional<std::string>>(&argument.value);
        if (text == nullptr) {
            Append(entries, std::uint32_t{0});
            std::visit(
                [&](const auto &value) {
                    if constexpr (std::is_integral_v<std::decay_t<decltype(value)>>) Append(entries, value);
                },
                argument.value);
        } else if (!*text) {
            Append(entries, std::uint32_t{0});
            Append(entries, std::uint64_t{0});
        } else {
            Append(entries, static_cast<std::uint32_t>((*text)->size() + 1));
            Append(entries, event.arguments.size() * MSGFMT_ENTRY_BYTES + texts.size());
            texts += **text + '\0';
        }
    }
    std::string identity = event.hostIdentity;
    identity.resize(40, '\0'); // with the two zero bytes
    std::string bytes;
    Append(bytes, event.timestamp);
    Append(bytes, event.kernelWord);
    bytes += identity;
    Append(bytes,
           static_cast<std::uint32_t>(68 + event.typeId.size() + 1 + entries.size() + texts.size() + 4));
    Append(bytes, static_cast<std::uint32_t>(event.arguments.size()));
    Append(bytes, static_cast<std::uint32_t>(event.typeId.size() + 1));
    bytes += event.typeId + '\0' + entries + texts + std::string(4, '\0');
    return bytes;
}

bool Decode(std::string_view bytes, EventRecord *event, std::string *error)
{
    return EventRecord_Decode(std::as_bytes(std::span(bytes)), event, error) == 0;
}

bool Same(const EventRecord &one, const EventRecord &other)
{
    return one.timestamp == other.timestamp && one.kernelWord == other.kernelWord &&
           one.hostIdentity == other.hostIdentity && one.typeId == other.typeId &&
           one.arguments == other.arguments;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes = AsText(data, size);
    EventRecord event, again;
    std::string error;
    if (!Decode(bytes, &event, &error)) {
        std::size_t at = 0;
        FUZZ_CHECK(std::sscanf(error.c_str(), "byte %zu: ", &at) == 1 && at <= size);
        return 0;
    }
    FUZZ_CHECK(!Decode(bytes.substr(0, size - 1), &again, &error));
    const std::string encoded = Encode(event);
    FUZZ_CHECK(Decode(encoded, &again, &error) && Same(event, again) && Encode(again) == encoded);

    // Its own texts are as good as any for a format.
    std::string format = event.typeId;
    for (const EventArgument &argument : event.arguments)
        format += argument.ToText();
    const std::string text = EventRecord_Render(event, format);
    FUZZ_CHECK(text == EventRecord_Render(again, format));
    return 0;
}
