// The event record: what the daemon sends to the management agent, one to a connection.
//
// Little-endian: bytes 0-7 time stamp in microseconds, 8-15 the kernel's, 16-53 host identity,
// 54-55 zero, 56-59 total length, 60-63 argument count, 64-67 length of the event type ID with its NUL
// (at most 129), 68- the ID, then the packed, swizzled arguments, then 4 zero bytes.
#ifndef KLTLIBS_STANDALONE_EVENTRECORD_H
#define KLTLIBS_STANDALONE_EVENTRECORD_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

struct EventArgument {
    std::uint32_t type = 0; // MsgFmtType
    std::variant<std::int64_t, std::uint64_t, std::optional<std::string>> value;

    std::string ToText() const; // the number, the text, or "(null)"
    bool operator==(const EventArgument &) const = default;
};

struct EventRecord {
    std::uint64_t timestamp = 0;  // microseconds since the epoch
    std::uint64_t kernelWord = 0; // bytes 8-15
    std::string hostIdentity;     // bytes 16-53, cut at its first NUL
    std::string typeId;
    std::vector<EventArgument> arguments;
};

// Decodes one whole record, strictly: every length, the two zero fields, every argument.
// 0, or EINVAL with *error saying what is wrong and at which byte.
int EventRecord_Decode(std::span<const std::byte> bytes, EventRecord *event, std::string *error);

// Renders a printf-style text with the event's arguments; as MsgFmt_Asprintf does what does not fit.
std::string EventRecord_Render(const EventRecord &event, const std::string &format);

#endif
