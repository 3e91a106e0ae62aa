// Batches of observation records as a hostile producer might send them.
//
// What the judge lets through must be safe for every reader behind it, and say the same when it is built
// anew from what the readers read.
#include "fuzz.h"

#include <array>
#include <cstring>
#include <kelValidate.h>
#include <kelproducer.h>
#include <kltlibs/kel.h>
#include <kltlibs/kelrecord.h>
#include <kltlibs/msgfmt.h>
#include <memory>
#include <vector>

namespace {

using KelPtr = std::unique_ptr<Kel, void (*)(Kel *)>;
using TextPtr = std::unique_ptr<char, void (*)(void *)>;

// Null when it is refused.
KelPtr Make(const char *record, std::size_t length)
{
    void *buffer = std::malloc(length + 1); // never nothing
    FUZZ_CHECK(buffer != nullptr);
    buffer = std::realloc(buffer, length > 0 ? length : 1);
    std::memcpy(buffer, record, length);
    Kel *kel = nullptr;
    if (Kel_MakeKel(buffer, static_cast<std::uint32_t>(length), &kel) != 0) std::free(buffer);
    return KelPtr(kel, Kel_Free);
}

// The arguments as the accessors give them, those of reserved types left out.
std::vector<KelProducerArg> ReadArguments(const Kel *kel, const char *record, std::string *format)
{
    std::vector<KelProducerArg> arguments;
    for (std::uint32_t index = 0; index < KelRecord_ArgumentCount(record); ++index) {
        MsgFmtArg packed;
        MsgFmt_GetArg(KelRecord_ArgumentArea(record), index, &packed);
        const auto position = static_cast<int>(index);
        const char *text = nullptr;
        std::int32_t number = 0;
        const int readText = Kel_GetStringArg(kel, position, &text);
        const int readNumber = Kel_GetIntArg(kel, position, &number);
        if (packed.type == MSGFMT_TYPE_STRING) {
            FUZZ_CHECK(readText == 0 && readNumber != 0);
            FUZZ_CHECK(packed.stringLength == (text == nullptr ? 0 : std::strlen(text) + 1));
        } else {
            FUZZ_CHECK(readText != 0);
        }
        switch (packed.type) {
        case MSGFMT_TYPE_INT32:
            packed.value =
                static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(packed.value)});
            FUZZ_CHECK(readNumber == 0 && static_cast<std::uint64_t>(std::int64_t{number}) == packed.value);
            *format += "%d";
            break;
        case MSGFMT_TYPE_UINT32:
            packed.value = static_cast<std::uint32_t>(packed.value);
            FUZZ_CHECK(readNumber == 0 && static_cast<std::uint32_t>(number) == packed.value);
            *format += "%u";
            break;
        case MSGFMT_TYPE_INT64:
            *format += "%ld";
            break;
        case MSGFMT_TYPE_UINT64:
            *format += "%lu";
            break;
        case MSGFMT_TYPE_STRING:
            *format += "%s";
            break;
        default:
            FUZZ_CHECK(readNumber != 0);
            continue;
        }
        arguments.push_back({packed.type, packed.value, text});
    }
    const char *text = nullptr;
    std::int32_t number = 0;
    const auto behind = static_cast<int>(KelRecord_ArgumentCount(record));
    FUZZ_CHECK(Kel_GetStringArg(kel, behind, &text) != 0 && Kel_GetIntArg(kel, behind, &number) != 0);
    return arguments;
}

std::string MessageOf(const Kel *kel)
{
    char *text = nullptr;
    std::size_t length = 0;
    FUZZ_CHECK(Kel_GetMsg(kel, &text, &length) == 0);
    const TextPtr owner(text, std::free);
    FUZZ_CHECK(text[length] == '\0');
    return {text, length};
}

// All arguments in one call: as many 64-bit destinations as there can be.
template <std::size_t... kAt>
int ReadAll(const Kel *kel, const char *format, std::array<std::uint64_t, sizeof...(kAt)> &to,
            std::index_sequence<kAt...>)
{
    return Kel_GetArgs(kel, 0, format, static_cast<void *>(&to[kAt])...);
}

void CheckReadInOneCall(const Kel *kel, const std::vector<KelProducerArg> &arguments)
{
    std::string format;
    for (const KelProducerArg &argument : arguments)
        format += argument.type == MSGFMT_TYPE_STRING ? "%p " : "%ld ";
    std::array<std::uint64_t, KELRECORD_ARGUMENTS_MAX> read{};
    FUZZ_CHECK(ReadAll(kel, format.c_str(), read, std::make_index_sequence<read.size()>{}) == 0);
    for (std::size_t at = 0; at < arguments.size(); ++at)
        FUZZ_CHECK(read[at] == (arguments[at].type == MSGFMT_TYPE_STRING
                                    ? reinterpret_cast<std::uintptr_t>(arguments[at].string)
                                    : arguments[at].integer));
}

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

void CheckRecord(const char *record, std::size_t length)
{
    FUZZ_CHECK(KelValidate_Record(record, length));
    const KelPtr kel = Make(record, length);
    FUZZ_CHECK(kel != nullptr);
    const char *id = nullptr;
    FUZZ_CHECK(Kel_GetID(kel.get(), &id) == 0 && std::strlen(id) <= KELRECORD_ID_CHARS_MAX);
    FUZZ_CHECK(Kel_IsID(id, KelRecord_ID(record)));
    const std::string message = MessageOf(kel.get());

    std::string format;
    const std::vector<KelProducerArg> arguments = ReadArguments(kel.get(), record, &format);
    if (arguments.size() < KelRecord_ArgumentCount(record)) return;
    CheckReadInOneCall(kel.get(), arguments);

    // Built anew without its format it reads the same; with it, it shows the same, too. Texts that
    // arguments shared lie apart now, which the largest record may have no room for.
    const std::string plain = Build(kel.get(), format.c_str(), arguments);
    if (plain.empty()) return;
    const KelPtr again = Make(plain.data(), plain.size());
    FUZZ_CHECK(again != nullptr);
    std::string sameFormat;
    const std::vector<KelProducerArg> same = ReadArguments(again.get(), plain.data(), &sameFormat);
    FUZZ_CHECK(sameFormat == format && Build(again.get(), format.c_str(), same) == plain);
    const std::string whole = Build(kel.get(), KelRecord_MessageFormat(record), arguments);
    if (whole.empty()) return; // a format that does not fit its arguments
    const KelPtr shown = Make(whole.data(), whole.size());
    FUZZ_CHECK(shown != nullptr && MessageOf(shown.get()) == message);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0) return 0; // no datagram: an end of stream
    const char *bytes = reinterpret_cast<const char *>(data);
    KelFaultText fault{};
    const bool valid = KelValidate_Batch(bytes, size, &fault);
    FUZZ_CHECK(valid == (fault[0] == '\0'));
    if (!valid) {
        FUZZ_CHECK(std::memchr(fault.data(), '\0', fault.size()) != nullptr);
        FUZZ_CHECK(Make(bytes, size) == nullptr);
        return 0;
    }
    for (std::size_t at = 0; at < size;) {
        const std::size_t length = KelRecord_TotalLength(bytes + at);
        FUZZ_CHECK(length >= KELRECORD_BYTES_MIN && length <= size - at);
        // A byte less is no record, and every record stands by itself.
        FUZZ_CHECK(!KelValidate_Batch(bytes + at, length - 1, &fault));
        CheckRecord(bytes + at, length);
        at += length;
    }
    return 0;
}
