// Hold-offs: for how long repeats of an event are not posted, and what is remembered of each key for that.
#ifndef KELD_HOLDOFF_H
#define KELD_HOLDOFF_H

#include "keldNote.h"

#include <cstdint>
#include <map>
#include <string>

enum class KeldRepeat : std::uint8_t { Silent, Posts };

// How long repeats about one key are held off, and what becomes of those on the edges.
struct KeldHoldOffRule {
    std::uint32_t seconds;
    KeldRepeat atItsEnd;         // of one that comes exactly so many seconds after the beginning
    KeldRepeat whenClockSetBack; // to before the beginning; Silent: until the clock has caught up
    bool renewed;                // whether a repeat that is not posted begins it anew

    // Whether an event about key, whose hold-off began at begunSeconds, is to be posted at nowSeconds. When
    // it is not, the present observation's fate is said: held back, and until when.
    bool IsOver(const std::string &key, std::uint64_t begunSeconds, std::uint64_t nowSeconds) const;

    constexpr operator KeldLimit() const { return {"holdOff", seconds, "seconds"}; }
};

// KEPT: the rules differ, each is as its receivers know it. What fails on a file system at least once every
// 300 seconds is reported once and never again; posting it again would flood the receiver with a condition
// that nobody has looked after yet. The first crash after the clock was set back is reported; a crashing
// application would otherwise be quiet for as long as the clock went back.
//
// clang-format off
//                                                 seconds  at its end          clock set back      renewed
inline constexpr KeldHoldOffRule kClockHoldOff        {3600,  KeldRepeat::Posts,  KeldRepeat::Silent, false}; // an observation
inline constexpr KeldHoldOffRule kLeaseHoldOff        {1200,  KeldRepeat::Silent, KeldRepeat::Silent, false}; // a DHCP server
inline constexpr KeldHoldOffRule kLogDirectoryHoldOff {90,    KeldRepeat::Silent, KeldRepeat::Silent, false}; // a configured directory
inline constexpr KeldHoldOffRule kFileSystemHoldOff   {300,   KeldRepeat::Silent, KeldRepeat::Posts,  true};  // a file, a file system
inline constexpr KeldHoldOffRule kCrashHoldOff        {36000, KeldRepeat::Posts,  KeldRepeat::Posts,  false}; // an application
// clang-format on

// One rule for any number of keys. What was never seen counts as seen in 1970. Keys are never forgotten by
// themselves: they are names of what a host has, and few. The owning agent's thread only.
class KeldHoldOff {
public:
    explicit KeldHoldOff(const KeldHoldOffRule &rule) : mRule(rule) {}

    // True when an event about key is to be posted at nowSeconds; its hold-off then begins.
    bool Observe(const std::string &key, std::uint64_t nowSeconds)
    {
        const bool over = IsOver(key, nowSeconds);
        if (over || mRule.renewed) Begin(key, nowSeconds);
        return over;
    }

    // The same in two steps, for what may turn out not to be posted.
    bool IsOver(const std::string &key, std::uint64_t nowSeconds) const
    {
        const auto found = mBegun.find(key);
        return mRule.IsOver(key, found == mBegun.end() ? 0 : found->second, nowSeconds);
    }
    void Begin(const std::string &key, std::uint64_t nowSeconds) { mBegun[key] = nowSeconds; }

    // Ends the key's hold-off: its next event is posted.
    void End(const std::string &key) { mBegun.erase(key); }

private:
    const KeldHoldOffRule &mRule;
    std::map<std::string, std::uint64_t> mBegun; // by key, seconds since the epoch
};

#endif
