// The quiet period of the local file systems' reports.
//
// KEPT: every observation starts the period anew, posted or not. What fails at least once every 300
// seconds is reported once and never again; posting it again would flood the receiver with a condition
// that nobody has looked after yet.
#ifndef KELD_QUIETPERIOD_H
#define KELD_QUIETPERIOD_H

#include <cstdint>
#include <utility>

inline constexpr std::uint64_t kQuietPeriodSeconds = 300;

class KeldQuietPeriod {
public:
    // True when the observation of this second is to be posted: the first one, and one that comes more
    // than the quiet period after the one before it. A clock that was set back counts as a long time.
    bool Observe(std::uint64_t nowSeconds)
    {
        return nowSeconds - std::exchange(mLastSeconds, nowSeconds) > kQuietPeriodSeconds;
    }

private:
    std::uint64_t mLastSeconds = 0;
};

#endif
