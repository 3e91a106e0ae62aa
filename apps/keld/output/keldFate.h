// What becomes of each observation in its agent: its fate.
//
// While an agent handles an observation, that observation is the thread's present one. It ends in exactly
// one fate, which is told when its handler has returned. The framework knows some by itself: no handler,
// ignored, posted, an argument that cannot be read. What a handler decides, it says:
//
//     KeldSay(KeldFate::HeldBack, "within 90 s of the last one for %s; posts again after %s", directory,
//             KeldTimeOfDay(begun + 90).text);
//
// When a handler says several fates, the last one holds; whatever it says holds before what the framework
// knows. A posted event holds before both, unless the observation is gathered, too, or its handler fails. A
// handler that returns without a fate has a fault; these are counted.
//
// What is gathered keeps its KeldOrigin. Whoever handles it later names these origins, so that the events
// are told as theirs and not as the present observation's:
//
//     KeldOrigins origins;
//     for (const Item &item : batch) origins.Add(item.origin);
//     ... KeldPost<kConnectivityLost>(...), or origins.Became(KeldOutcome::Discarded, "%s is back", nic);
//
// Each thread has its own present observation and scope. Nothing here throws or waits; texts are rendered
// only while somebody listens to the journal.
#ifndef KELD_FATE_H
#define KELD_FATE_H

#include <kltlibs/journalrecord.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

using KeldFate = JournalFate;
using KeldOutcome = JournalOutcome;
using KeldOrigin = JournalOrigin;

inline constexpr std::size_t kKeldFateCharsMax = 255; // what is longer is cut

// ---- For handlers -----------------------------------------------------------------------------------

// Says what becomes of the present observation. Does nothing when there is none.
void KeldSay(KeldFate fate, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The present observation, to be kept with what is gathered; none outside of a handler.
KeldOrigin KeldPresent();

// "03:14:10", local time, for a text; empty while nobody listens.
struct KeldTimeOfDay {
    explicit KeldTimeOfDay(std::uint64_t secondsSinceEpoch);
    char text[9] = "";
};

inline constexpr std::size_t kKeldOriginsMax = 64; // named; the others are only counted

// A scope in which events come from the observations that were added, which had been gathered, and from no
// observation when none was added. Its end tells their outcome: what Became said, or else posted when an
// event was posted and discarded when none was. Scopes do not nest.
class KeldOrigins {
public:
    KeldOrigins();
    ~KeldOrigins();
    KeldOrigins(const KeldOrigins &) = delete;
    KeldOrigins &operator=(const KeldOrigins &) = delete;

    void Add(KeldOrigin origin); // none is allowed, and not counted
    void Became(KeldOutcome outcome, const char *format, ...) __attribute__((format(printf, 3, 4)));

private:
    friend struct KeldCause;
    std::span<const KeldOrigin> Named() const { return {mNamed.data(), std::min(mCount, kKeldOriginsMax)}; }
    std::uint32_t Unnamed() const { return static_cast<std::uint32_t>(mCount - Named().size()); }

    std::array<KeldOrigin, kKeldOriginsMax> mNamed;
    std::size_t mCount = 0;
    bool mPosted = false;
    KeldOutcome mOutcome{}; // zero: not said
    char mText[kKeldFateCharsMax + 1] = "";
};

// ---- For the framework ------------------------------------------------------------------------------

// The scope in which one observation is the present one. Its end tells the fate, or counts the fault.
class KeldHandling {
public:
    explicit KeldHandling(KeldOrigin origin); // of count 0: no agent's observation, as in tests
    ~KeldHandling();
    KeldHandling(const KeldHandling &) = delete;
    KeldHandling &operator=(const KeldHandling &) = delete;
};

// Says a fate for the framework. It holds unless the handler says one, or this is called again.
void KeldSayByItself(KeldFate fate, const char *format, ...) __attribute__((format(printf, 2, 3)));

// True when the present observation has a fate of either kind.
bool KeldHasFate();

// What an event that is posted now comes from; marks these observations as posted. Good until the handler
// or the scope ends.
struct KeldCause {
    KeldCause();
    std::span<const KeldOrigin> named;
    std::uint32_t unnamed = 0; // how many more
    bool fateFollows = false;  // this thread is handling an observation, and tells its fate behind that
};

// How many handlers have returned without a fate. Any thread.
std::uint64_t KeldFatesMissing();

#endif
