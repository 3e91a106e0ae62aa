// The journal: what becomes of every observation and of every event, as the daemon writes it and its
// readers find it. One entry behind the other, all of it little-endian, without padding:
//
//     0-3    length in bytes, header included
//     4-5    kind
//     6-7    zero
//     8-15   number: of each entry one more than of the one before
//     16-23  when it was told, wall-clock microseconds since the epoch
//     24-    the fields of its kind, in their order
//
// Numbers take their own bytes; a text is its length in 2 bytes and its bytes, without a NUL; a record its
// length in 4 bytes and its bytes; a list the number of its items in 2 bytes, and these. Field lists serve
// for writing and for reading, so that the two cannot differ.
//
// A listener gets: hello first; then entries as they come, and a gap in place of those that it was too slow
// for; end as the last, unless the daemon is killed. A kind that a reader does not know is to be passed
// over.
#ifndef KLTLIBS_JOURNALRECORD_H
#define KLTLIBS_JOURNALRECORD_H

#include <concepts>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

enum : std::uint32_t {
    kJournalFormat = 1,
    kJournalHeaderBytes = 24,
    kJournalNumberAt = 8,
    kJournalTimeAt = 16,
    kJournalEntryBytesMax = 256 << 10,
    kJournalTextBytesMax = 0xFFFF,
};

// ---- Codes ----------------------------------------------------------------------------------------

enum class JournalKind : std::uint16_t {
    Hello = 1,
    Begin = 2,
    In = 3,
    Dropped = 4,
    Fate = 5,
    Outcome = 6,
    Out = 7,
    Delivery = 8,
    Lost = 9,
    Gap = 10,
    End = 11,
};

// What becomes of an observation in one agent. Each that an agent takes out of its pipe gets exactly one;
// each that it does not is lost.
enum class JournalFate : std::uint8_t {
    NoHandler = 1,    // nobody knows the ID
    Ignored = 2,      // on purpose
    Posted = 3,       // an event was made of it
    Gathered = 4,     // until a time; what becomes of it then is an outcome
    Counted = 5,      // n of m
    HeldBack = 6,     // until a time
    Noted = 7,        // it changed what the agent remembers
    Unreadable = 8,   // an argument cannot be read, or is null
    LookUpFailed = 9, // the host does not tell what is needed
    HandlerFailed = 10,
    AgentEnded = 11, // before it took the observation out
    Lost = 12,       // it stood in the agent's pipe at the exit
};

// What became of observations that were gathered.
enum class JournalOutcome : std::uint8_t { Posted = 1, Discarded = 2, StillOpen = 3 };

enum class JournalDelivery : std::uint8_t {
    Delivered = 1, // handed over: a receiver that is killed may still lose it
    Waiting = 2,   // for the next try
    // For good:
    Abandoned = 3,
    Limited = 4,
    IdTooLong = 5,
    ArgumentsTooLarge = 6,
    NoMemory = 7,
    LostAtExit = 8,
};

// ---- Entries --------------------------------------------------------------------------------------
//
// Texts and records of an entry that was read lie in the bytes that it was read from.

struct JournalBytes {
    std::string_view bytes;
    bool operator==(const JournalBytes &) const = default;
};

// An observation in an agent: the agent's number, and the observation's place among those that went to that
// agent.
struct JournalOrigin {
    std::uint16_t agent = 0;
    std::uint64_t count = 0; // from 1 on; 0 is none

    static void Fields(auto &self, auto &&visit) { visit(self.agent, self.count); }
    bool operator==(const JournalOrigin &) const = default;
};

struct JournalAgent {
    std::uint16_t number = 0;
    std::uint8_t ended = 0; // 1 when it has ended by itself
    std::string_view name;

    static void Fields(auto &self, auto &&visit) { visit(self.number, self.ended, self.name); }
    bool operator==(const JournalAgent &) const = default;
};

// The first entry of a listener; its number is the next one's. A run of the daemon is one boot, process and
// start; all other numbers begin anew with each.
struct JournalHello {
    static constexpr JournalKind kKind = JournalKind::Hello;
    std::uint32_t format = kJournalFormat;
    std::uint32_t process = 0;
    std::uint64_t startTicks =
        0;                    // of the process, in clock ticks since the boot: field 22 of /proc/PID/stat
    std::uint64_t since = 0;  // when the daemon was ready, wall-clock microseconds
    std::string_view boot;    // /proc/sys/kernel/random/boot_id, empty when it cannot be read
    std::string_view version; // of the daemon
    std::vector<JournalAgent> agents;

    static void Fields(auto &self, auto &&visit)
    {
        visit(self.format, self.process, self.startTicks, self.since, self.boot, self.version, self.agents);
    }
    bool operator==(const JournalHello &) const = default;
};

// From here on nothing is missing: every observation and event with a higher number is told. Comes with the
// first observations behind a hello, and behind a gap.
struct JournalBegin {
    static constexpr JournalKind kKind = JournalKind::Begin;
    std::uint64_t observations = 0;    // so far
    std::uint64_t events = 0;          // so far
    std::vector<JournalOrigin> queued; // of each agent: the last that went to it

    static void Fields(auto &self, auto &&visit) { visit(self.observations, self.events, self.queued); }
    bool operator==(const JournalBegin &) const = default;
};

// An observation has come in.
struct JournalIn {
    static constexpr JournalKind kKind = JournalKind::In;
    std::uint64_t observation = 0; // its number, from 1 on
    std::int32_t channel = 0;      // 0-21 kernel contexts, 22 user level
    std::vector<JournalOrigin> to; // the agents that get it; none: wanted by nobody
    JournalBytes record;           // kltlibs/kelrecord.h

    static void Fields(auto &self, auto &&visit)
    {
        visit(self.observation, self.channel, self.to, self.record);
    }
    bool operator==(const JournalIn &) const = default;
};

// A channel refused something: it has no number, as it was never an observation.
struct JournalDropped {
    static constexpr JournalKind kKind = JournalKind::Dropped;
    std::int32_t channel = 0;
    std::uint64_t bytes = 0;
    std::string_view why;

    static void Fields(auto &self, auto &&visit) { visit(self.channel, self.bytes, self.why); }
    bool operator==(const JournalDropped &) const = default;
};

struct JournalFateEntry {
    static constexpr JournalKind kKind = JournalKind::Fate;
    JournalOrigin origin;
    JournalFate fate{};
    std::string_view text; // may be empty

    static void Fields(auto &self, auto &&visit) { visit(self.origin, self.fate, self.text); }
    bool operator==(const JournalFateEntry &) const = default;
};

struct JournalOutcomeEntry {
    static constexpr JournalKind kKind = JournalKind::Outcome;
    JournalOutcome outcome{};
    std::vector<JournalOrigin> origins;
    std::uint32_t unnamed = 0; // how many more origins there are
    std::string_view text;     // may be empty

    static void Fields(auto &self, auto &&visit)
    {
        visit(self.outcome, self.origins, self.unnamed, self.text);
    }
    bool operator==(const JournalOutcomeEntry &) const = default;
};

// An event has been made, whatever becomes of it.
struct JournalOut {
    static constexpr JournalKind kKind = JournalKind::Out;
    std::uint64_t event = 0;            // its number, from 1 on
    std::vector<JournalOrigin> origins; // none: a timer's, or the daemon's own
    std::uint32_t unnamed = 0;          // how many more origins there are
    std::string_view type;              // its type ID
    JournalBytes record;                // kltlibs/plingrecord.h; empty when none was made

    static void Fields(auto &self, auto &&visit)
    {
        visit(self.event, self.origins, self.unnamed, self.type, self.record);
    }
    bool operator==(const JournalOut &) const = default;
};

// How an event stands. Delivered and what is for good comes once.
struct JournalDeliveryEntry {
    static constexpr JournalKind kKind = JournalKind::Delivery;
    std::uint64_t event = 0;
    JournalDelivery state{};
    std::uint32_t tries = 0; // so far, of at most 6

    static void Fields(auto &self, auto &&visit) { visit(self.event, self.state, self.tries); }
    bool operator==(const JournalDeliveryEntry &) const = default;
};

// What went to an agent and was never taken by it: everything behind the count taken, up to queued.
struct JournalLost {
    static constexpr JournalKind kKind = JournalKind::Lost;
    std::uint16_t agent = 0;
    JournalFate fate{}; // AgentEnded or Lost
    std::uint64_t taken = 0;
    std::uint64_t queued = 0;

    static void Fields(auto &self, auto &&visit) { visit(self.agent, self.fate, self.taken, self.queued); }
    bool operator==(const JournalLost &) const = default;
};

// Entries that this listener was too slow for: from this entry's own number to the last.
struct JournalGap {
    static constexpr JournalKind kKind = JournalKind::Gap;
    std::uint64_t last = 0;

    static void Fields(auto &self, auto &&visit) { visit(self.last); }
    bool operator==(const JournalGap &) const = default;
};

// The daemon has ended as it should.
struct JournalEnd {
    static constexpr JournalKind kKind = JournalKind::End;
    std::int32_t status = 0;        // its exit status
    std::uint64_t observations = 0; // of the whole run
    std::uint64_t events = 0;

    static void Fields(auto &self, auto &&visit) { visit(self.status, self.observations, self.events); }
    bool operator==(const JournalEnd &) const = default;
};

// ---- Writing --------------------------------------------------------------------------------------

// Writes fields one behind the other, or only counts their bytes when there is nowhere to write to. So an
// entry's length is known before its first byte: it is given room once.
class JournalWriter {
public:
    explicit JournalWriter(char *to) : mTo(to) {}

    void operator()(const auto &...fields) { (Put(fields), ...); }

    std::size_t Bytes() const { return mBytes; } // so far

private:
    template <class T>
    requires(std::integral<T> || std::is_enum_v<T>) void Put(T value) { Put(&value, sizeof value); }
    void Put(std::string_view text)
    {
        text = text.substr(0, kJournalTextBytesMax);
        Put(static_cast<std::uint16_t>(text.size()));
        Put(text.data(), text.size());
    }
    void Put(const JournalBytes &record)
    {
        Put(static_cast<std::uint32_t>(record.bytes.size()));
        Put(record.bytes.data(), record.bytes.size());
    }
    template <class T> void Put(const std::vector<T> &list)
    {
        Put(static_cast<std::uint16_t>(list.size()));
        for (const T &item : list)
            Put(item);
    }
    template <class T>
    requires requires { &T::template Fields<const T, JournalWriter &>; }
    void Put(const T &item) { T::Fields(item, *this); }
    void Put(const void *bytes, std::size_t count)
    {
        if (mTo != nullptr && count != 0) std::memcpy(mTo + mBytes, bytes, count);
        mBytes += count;
    }

    char *const mTo;
    std::size_t mBytes = 0;
};

// Gives a rendered entry its number and time, and returns its length.
inline std::uint32_t Journal_Stamp(char *entry, std::uint64_t number, std::uint64_t microseconds)
{
    std::memcpy(entry + kJournalNumberAt, &number, sizeof number);
    std::memcpy(entry + kJournalTimeAt, &microseconds, sizeof microseconds);
    std::uint32_t length;
    std::memcpy(&length, entry, sizeof length);
    return length;
}

// Appends one entry. Throws std::bad_alloc, with nothing changed. Lists have at most 65535 items, and the
// entry at most kJournalEntryBytesMax bytes. Any thread.
template <class Entry>
void Journal_Append(std::string *to, std::uint64_t number, std::uint64_t microseconds, const Entry &entry)
{
    const auto write = [&](JournalWriter writer, std::size_t length) {
        writer(static_cast<std::uint32_t>(length), Entry::kKind, std::uint16_t{0}, number, microseconds);
        Entry::Fields(entry, writer);
        return writer.Bytes();
    };
    const std::size_t begin = to->size();
    const std::size_t length = write(JournalWriter(nullptr), 0);
    to->resize(begin + length);
    write(JournalWriter(to->data() + begin), length);
}

#endif
