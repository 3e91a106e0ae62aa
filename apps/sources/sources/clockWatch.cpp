#include "clockWatch.h"

#include <cstdlib>
#include <fmt/format.h>

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

// The kernel also says "set" when the host wakes up, and when only the count of leap seconds has changed.
constexpr std::int64_t kLeastStepNanoseconds = 1'000'000;

// clang-format off
enum { kStepUnsync, kSync, kUnsync, kLostSync, kStepped };
constexpr Row kRows[] = {
    {"kel.clock.correction.step.unsync",      "%d %d", "the clock was set, and is not synchronised any more"},
    {"kel.clock.correction.adjtime.sync",     "",      "the kernel calls the clock synchronised again"},
    {"kel.clock.correction.adjtime.unsync",   "",      "somebody told the kernel that the clock is not synchronised"},
    {"kel.clock.correction.adjtime.lostsync", "",      "nobody has corrected the clock for so long that the kernel calls it unsynchronised"},
    {"kel.external.info", kExternalFormat, "the clock was set, by a millisecond or more, and that did not cost it its synchronisation"},
};
// clang-format on

} // namespace

std::span<const Row> ClockWatch::Rows() { return kRows; }

void ClockWatch::Take(const ClockLook &look, bool stepped)
{
    if (!mLast) {
        mLast = look;
        return;
    }
    const ClockLook before = *mLast;
    mLast = look;
    if (stepped && before.synchronised && !look.synchronised) {
        mEmit(kRows[kStepUnsync], {static_cast<std::int32_t>(look.wallNanoseconds / kNanoseconds),
                                   static_cast<std::int32_t>(look.wallNanoseconds % kNanoseconds)});
        return;
    }
    const auto step = (look.wallNanoseconds - before.wallNanoseconds) -
                      (look.steadyNanoseconds - before.steadyNanoseconds);
    if (stepped && std::abs(step) >= kLeastStepNanoseconds) {
        const auto text = fmt::format("the system clock was set, by {:+.3f} seconds",
                                      static_cast<double>(step) / static_cast<double>(kNanoseconds));
        mEmit(kRows[kStepped], External("clock", text));
    }
    if (look.synchronised && !before.synchronised) mEmit(kRows[kSync], {});
    if (!look.synchronised && before.synchronised) mEmit(kRows[look.errorRanOut ? kLostSync : kUnsync], {});
}
