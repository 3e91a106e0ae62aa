// The event record, decoded; kltlibs/plingrecord.h tells its layout.
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
