// One observation: its accessors.
#include "kltlibs/kel.h"

#include "kelValidate.h"
#include "kltlibs/kelrecord.h"
#include "msgfmtArg.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

struct Kel {
    char *record; // malloc'ed, owned
};

namespace {

// What a conversion of a reading format writes.
enum class Destination : std::uint8_t { Invalid, Text, Bits8, Bits16, Bits32, Bits64 };

// The conversion behind a "%", from *at on; *at ends behind it. Flags, width and precision say
// nothing about a destination.
Destination ReadConversion(const char **at)
{
    const char *here = *at + std::strspn(*at, "#0- +");
    here += std::strspn(here, "0123456789");
    if (*here == '.') here += 1 + std::strspn(here + 1, "0123456789");
    Destination width = Destination::Bits32;
    const char *length = here;
    if (here[0] == 'h') {
        width = here[1] == 'h' ? Destination::Bits8 : Destination::Bits16;
        here += here[1] == 'h' ? 2 : 1;
    } else if (*here == 'l' || *here == 'L' || *here == 'z') {
        width = Destination::Bits64;
        here += here[0] == 'l' && here[1] == 'l' ? 2 : 1;
    }
    *at = *here == '\0' ? here : here + 1;
    switch (*here) {
    case 'p':
        return here == length ? Destination::Text : Destination::Invalid;
    case 'c': // always a char: a wider one would be written past its end
        return width == Destination::Bits64 ? Destination::Invalid : Destination::Bits8;
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        return width;
    default:
        return Destination::Invalid;
    }
}

// A value on its way to its destination: nothing is written before everything has been read.
struct Reading {
    Destination kind;
    void *destination;
    std::uint64_t value;
    const char *text;

    void Write() const
    {
        switch (kind) {
        case Destination::Text:
            std::memcpy(destination, &text, sizeof text);
            break;
        case Destination::Bits8:
            std::memcpy(destination, &value, 1);
            break;
        case Destination::Bits16:
            std::memcpy(destination, &value, 2);
            break;
        case Destination::Bits32:
            std::memcpy(destination, &value, 4);
            break;
        default:
            std::memcpy(destination, &value, 8);
            break;
        }
    }
};

bool Fits(const MsgFmtArg &arg, std::uint64_t value, int bits)
{
    if (bits == 64) return true;
    const std::uint64_t highest = (std::uint64_t{1} << bits) - 1;
    if (!MsgFmtArg_IsSigned(arg) || static_cast<std::int64_t>(value) >= 0) return value <= highest;
    return static_cast<std::int64_t>(value) >= -(std::int64_t{1} << (bits - 1));
}

int BitsOf(Destination kind)
{
    switch (kind) {
    case Destination::Bits8:
        return 8;
    case Destination::Bits16:
        return 16;
    case Destination::Bits32:
        return 32;
    default:
        return 64;
    }
}

// Fills value or text of a reading from the argument at index.
int ReadArgument(const char *record, std::uint32_t index, Reading *reading)
{
    if (index >= KelRecord_ArgumentCount(record) || reading->kind == Destination::Invalid) return EINVAL;
    const void *area = KelRecord_ArgumentArea(record);
    MsgFmtArg arg;
    MsgFmt_GetArg(area, index, &arg);
    if (reading->kind == Destination::Text) {
        if (arg.type != MSGFMT_TYPE_STRING) return EINVAL;
        reading->text = arg.stringLength == 0 ? nullptr : static_cast<const char *>(area) + arg.value;
        return 0;
    }
    if (!MsgFmtArg_IsInteger(arg)) return EINVAL;
    reading->value = MsgFmtArg_Integer(arg);
    return Fits(arg, reading->value, BitsOf(reading->kind)) ? 0 : ERANGE;
}

int ReadOne(const Kel *kel, int index, Destination kind, void *destination)
{
    if (kel == nullptr || index < 0) return EINVAL;
    Reading reading = {kind, destination, 0, nullptr};
    const int error = ReadArgument(kel->record, static_cast<std::uint32_t>(index), &reading);
    if (error == 0) reading.Write();
    return error;
}

} // namespace

int Kel_MakeKel(void *record, uint32_t totalLength, Kel **kel)
{
    *kel = nullptr;
    if (record == nullptr || !KelValidate_Record(record, totalLength)) return EINVAL;
    *kel = new (std::nothrow) Kel{static_cast<char *>(record)};
    return *kel != nullptr ? 0 : ENOMEM;
}

void Kel_Free(Kel *kel)
{
    if (kel == nullptr) return;
    std::free(kel->record);
    delete kel;
}

int Kel_GetID(const Kel *kel, const char **id)
{
    *id = kel != nullptr ? KelRecord_ID(kel->record) : nullptr;
    return kel != nullptr ? 0 : EINVAL;
}

bool Kel_IsID(const char *id, const char *literal)
{
    return id != nullptr && std::strcmp(id, literal) == 0;
}

int Kel_GetTimestamp(const Kel *kel, uint64_t *microseconds)
{
    *microseconds = kel != nullptr ? KelRecord_Timestamp(kel->record) : 0;
    return kel != nullptr ? 0 : EINVAL;
}

int Kel_GetMsg(const Kel *kel, char **text, size_t *length)
{
    *text = nullptr;
    if (kel == nullptr) return EINVAL;
    const char *record = kel->record;
    return MsgFmt_Asprintf(text, length, KelRecord_MessageFormat(record), KelRecord_ArgumentArea(record),
                           KelRecord_ArgumentCount(record), KelRecord_End(record));
}

int Kel_GetArgsVA(const Kel *kel, int /*options*/, const char *format, va_list destinations)
{
    if (kel == nullptr || format == nullptr) return EINVAL;
    std::array<Reading, KELRECORD_ARGUMENTS_MAX> readings;
    std::uint32_t count = 0;
    for (const char *at = format; *at != '\0';) {
        if (*at++ != '%') continue;
        if (*at == '%') {
            ++at;
            continue;
        }
        const Destination kind = ReadConversion(&at);
        if (kind == Destination::Invalid || count == readings.size()) return EINVAL;
        readings[count] = {kind, va_arg(destinations, void *), 0, nullptr};
        if (const int error = ReadArgument(kel->record, count, &readings[count]); error != 0) return error;
        ++count;
    }
    for (std::uint32_t index = 0; index < count; ++index)
        readings[index].Write();
    return 0;
}

int Kel_GetArgs(const Kel *kel, int options, const char *format, ...)
{
    va_list destinations;
    va_start(destinations, format);
    const int error = Kel_GetArgsVA(kel, options, format, destinations);
    va_end(destinations);
    return error;
}

int Kel_GetStringArg(const Kel *kel, int index, const char **text)
{
    return ReadOne(kel, index, Destination::Text, text);
}

int Kel_GetIntArg(const Kel *kel, int index, int32_t *value)
{
    return ReadOne(kel, index, Destination::Bits32, value);
}
