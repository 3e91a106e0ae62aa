// Batches of observation records as a hostile producer might send them.
//
// What the judge lets through must be safe for every reader behind it, and say the same when it is built
// anew from what the readers read.
#include "fuzz.h"

#include <array>
#include <cstring>
#include <kelValidate.h>
#include <kelproducer.h>
#include <kltlibs/kelrecord.h>
#include <kltlibs/msgfmt.h>
#include <vector>

namespace {

const char *ConversionOf(std::uint32_t type)
{
    constexpr const char *kConversions[] = {nullptr, "%d", "%ld", "%u", "%lu", nullptr, "%s"};
    return type < std::size(kConversions) ? kConversions[type] : nullptr;
}

// The arguments as the accessors give them, and a format for them; those of reserved types left out.
std::vector<KelProducerArg> ReadArguments(const Kel *kel, const char *record, std::string *format)
{
    std::vector<KelProducerArg> arguments;
    const std::uint32_t count = KelRecord_ArgumentCount(record);
    for (std::uint32_t index = 0; index <= count; ++index) {
        const char *text = nullptr;
        std::int32_t number = 0;
        const bool isText = Kel_GetStringArg(kel, static_cast<int>(index), &text) == 0;
        const bool isNumber = Kel_GetIntArg(kel, static_cast<int>(index), &number) == 0;
        MsgFmtArg packed{};
        if (index < count) MsgFmt_GetArg(KelRecord_ArgumentArea(record), index, &packed);
        const char *conversion = ConversionOf(packed.type);
        FUZZ_CHECK(isText == (packed.type == MSGFMT_TYPE_STRING) && !(isText && isNumber));
        FUZZ_CHECK(!isText || packed.stringLength == (text == nullptr ? 0 : std::strlen(text) + 1));
        if (packed.type == MSGFMT_TYPE_INT32 || packed.type == MSGFMT_TYPE_UINT32) {
            FUZZ_CHECK(isNumber &&
                       static_cast<std::uint32_t>(number) == static_cast<std::uint32_t>(packed.value));
            packed.value = packed.type == MSGFMT_TYPE_INT32
                               ? static_cast<std::uint64_t>(std::int64_t{number})
                               : static_cast<std::uint32_t>(number);
        }
        FUZZ_CHECK(conversion != nullptr || !isNumber);
        if (conversion == nullptr) continue;
        *format += conversion;
        arguments.push_back({packed.type, packed.value, text});
    }
    return arguments;
}

std::string MessageOf(const Kel *kel)
{
    char *text = nullptr;
    std::size_t length = 0;
    FUZZ_CHECK(Kel_GetMsg(kel, &text, &length) == 0);
    return TakeText(text, length);
}

// Empty when it cannot be built.
std::string Build(const Kel *kel, const char *format, const std::vector<KelProducerArg> &arguments)
{
    const char *id = nullptr;
    std::uint64_t timestamp = 0;
    FUZZ_CHECK(Kel_GetID(kel, &id) == 0 && Kel_GetTimestamp(kel, &timestamp) == 0);
    static std::array<char, KELPRODUCER_RECORD_BYTES_MAX> buffer;
    std::size_t length = 0;
    const int error = KelRecord_BuildFromArgs(buffer.data(), buffer.size(), &length, timestamp, id, format,
                                              arguments.data(), arguments.size());
    return error == 0 ? std::string(buffer.data(), length) : std::string();
}

void CheckRecord(std::string_view bytes)
{
    const char *record = bytes.data();
    const auto kel = MakeKel(bytes);
    FUZZ_CHECK(kel != nullptr);
    const char *id = nullptr;
    FUZZ_CHECK(Kel_GetID(kel.get(), &id) == 0 && Kel_IsID(id, KelRecord_ID(record)));
    FUZZ_CHECK(std::strlen(id) <= KELRECORD_ID_CHARS_MAX);
    const std::string message = MessageOf(kel.get());
    std::string format, sameFormat;
    const std::vector<KelProducerArg> arguments = ReadArguments(kel.get(), record, &format);
    if (arguments.size() < KelRecord_ArgumentCount(record)) return;

    // Built anew without its format it reads the same; with it, it shows the same, too. Texts that
    // arguments shared lie apart now, which the largest record may have no room for.
    const std::string plain = Build(kel.get(), format.c_str(), arguments);
    if (plain.empty()) return;
    const auto again = MakeKel(plain);
    FUZZ_CHECK(again != nullptr);
    const std::vector<KelProducerArg> same = ReadArguments(again.get(), plain.data(), &sameFormat);
    FUZZ_CHECK(Build(again.get(), sameFormat.c_str(), same) == plain);
    const std::string whole = Build(kel.get(), KelRecord_MessageFormat(record), arguments);
    if (whole.empty()) return; // a format that does not fit its arguments
    FUZZ_CHECK(MessageOf(MakeKel(whole).get()) == message);
}

} // namespace

void Fuzz(std::string_view input)
{
    if (input.empty()) return; // no datagram: an end of stream
    KelFaultText fault{};
    const bool valid = KelValidate_Batch(input.data(), input.size(), &fault);
    FUZZ_CHECK(valid == (fault[0] == '\0') && std::memchr(fault.data(), '\0', fault.size()) != nullptr);
    FUZZ_CHECK(valid || MakeKel(input) == nullptr);
    while (valid && !input.empty()) {
        const std::size_t length = KelRecord_TotalLength(input.data());
        FUZZ_CHECK(length >= KELRECORD_BYTES_MIN && length <= input.size());
        // A byte less is no record, and every record stands by itself.
        FUZZ_CHECK(!KelValidate_Batch(input.data(), length - 1, &fault));
        CheckRecord(input.substr(0, length));
        input.remove_prefix(length);
    }
}
