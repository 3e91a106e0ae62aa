// The system clock.
//
// Arrives    parameters of the clock discipline set, its state reset; large steps of the clock;
//            synchronisation with upstream time servers lost and found.
// Remembers  for each observation ID, when it was last posted; one map for each of the three handlers.
// Posts      one problem for each, and for the same ID at most one an hour; a loss of synchronisation
//            lets the next "synchronized" through at once.
// Time       the hour, which a failed read does not start.
//
// The clock that is watched is also the one that is asked: when it is set back, an ID stays silent
// until the clock has passed its last posting by an hour.

#include "keldDomains.h"

#include "keldTranslation.h"

#include <map>
#include <string>
#include <string_view>

namespace {

void KeldClockCorrelator_Sync(Kel *kel);
void KeldClockCorrelator_CorrectionDelta(Kel *kel);
void KeldClockCorrelator_SetValue(Kel *kel);

struct ClockRow : Translation {
    KeldHandler handler;
};

constexpr const char *kSynchronized = "kel.clock.correction.adjtime.sync";

// clang-format off
constexpr ClockRow kRows[] = {
    {{"kel.clock.correction.step.unsync", Args("seconds:%d, nanoseconds:%d"),
      "@&!*@*@(nox.problem.clock.correction.step.unsync)system clock stepped to %d.%09d, lost sync to upstream time servers"}, KeldClockCorrelator_Sync},
    {{kSynchronized, Args(""),
      "@&!*@*@(nox.problem.clock.correction.adjtime.sync)system clock synchronized to upstream time servers"}, KeldClockCorrelator_Sync},
    {{"kel.clock.correction.adjtime.unsync", Args(""),
      "@&!*@*@(nox.problem.clock.correction.adjtime.unsync)system clock lost synchronization to upstream time servers"}, KeldClockCorrelator_Sync},
    {{"kel.clock.correction.adjtime.lostsync", Args(""),
      "@&!*@*@(nox.problem.clock.correction.adjtime.lostsync)system clock apparently no longer synchronized to upstream time servers"}, KeldClockCorrelator_Sync},
    {{"kel.clock.correction.delta.warning", Args("seconds:%d, nanoseconds:%d, delta:%d, limit:%d, corrections:%d, correctionsMax:%d"),
      "@&!*@*@(nox.problem.clock.correction.delta.warning)system clock stepped to %d.%09d, but delta %d > %d seconds, %d/%d large corrections"}, KeldClockCorrelator_CorrectionDelta},
    {{"kel.clock.correction.delta.failed", Args("seconds:%d, nanoseconds:%d, delta:%d, limit:%d, correctionsMax:%d"),
      "@&!*@*@(nox.problem.clock.correction.delta.failed)system clock step to %d.%09d failed, delta %d > %d seconds, number of large corrections > %d"}, KeldClockCorrelator_CorrectionDelta},
    {{"kel.clock.correction.delta.allowed", Args("seconds:%d, nanoseconds:%d, delta:%d, limit:%d"),
      "@&!*@*@(nox.problem.clock.correction.delta.allowed)system clock stepped to %d.%09d, but delta %d > %d seconds"}, KeldClockCorrelator_CorrectionDelta},
    {{"kel.clock.state.reset", Args(""),
      "@&!*@*@(nox.problem.clock.state.reset)resetting system clock state"}, KeldClockCorrelator_SetValue},
    {{"kel.clock.parameter.set.maxNegPhaseCorrection", Args("value:%d"),
      "@&!*@*@(nox.problem.clock.parameter.set.maxNegPhaseCorrection)setting system clock parameter maxNegPhaseCorrection to %d"}, KeldClockCorrelator_SetValue},
    {{"kel.clock.parameter.set.maxPosPhaseCorrection", Args("value:%d"),
      "@&!*@*@(nox.problem.clock.parameter.set.maxPosPhaseCorrection)setting system clock parameter maxPosPhaseCorrection to %d"}, KeldClockCorrelator_SetValue},
    {{"kel.clock.parameter.set.numLargeCorrections", Args("value:%d"),
      "@&!*@*@(nox.problem.clock.parameter.set.numLargeCorrections)setting system clock parameter numLargeCorrections to %d"}, KeldClockCorrelator_SetValue},
    {{"kel.clock.parameter.set.maxLargeCorrections", Args("value:%d"),
      "@&!*@*@(nox.problem.clock.parameter.set.maxLargeCorrections)setting system clock parameter maxLargeCorrections to %d"}, KeldClockCorrelator_SetValue},
};
// clang-format on
static_assert(std::size(kRows) == 12 && DistinctUnder(kRows, "kel.clock."));

constexpr auto kObservations = []<std::size_t... kRow>(std::index_sequence<kRow...>)
{
    return std::array{KeldObservation{kRows[kRow].id,
                                      kRows[kRow].arguments,
                                      kRows[kRow].handler,
                                      std::string_view(kRows[kRow].id) == kSynchronized
                                          ? "posted at most once an hour, and at once after a loss"
                                          : "posted at most once an hour",
                                      {&kRows[kRow].event}}...};
}
(std::make_index_sequence<std::size(kRows)>{});

constexpr std::int64_t kThrottleSeconds = 3600;
using Throttle = std::map<std::string, std::int64_t>; // observation ID to when it was last posted

struct State {
    Throttle setValue, correctionDelta, sync;
};
State &Remembered()
{
    static State &state = *new State;
    return state;
}

// Does what the row of this ID says; false when its arguments cannot be read.
template <std::size_t... kRow> bool TranslateById(Kel *kel, const char *id, std::index_sequence<kRow...>)
{
    bool read = true;
    (void)((Kel_IsID(id, kRows[kRow].id) && (read = KeldTranslate<kRows, kRow>(kel), true)) || ...);
    return read;
}

// The ID of what was posted, borrowed from kel; null when nothing was.
const char *PostOncePerHour(Kel *kel, Throttle &throttle)
{
    const char *id = nullptr;
    if (Kel_GetID(kel, &id) != 0) return nullptr;
    std::int64_t &lastPosted = throttle[id];
    const auto now = static_cast<std::int64_t>(KeldNowSeconds());
    if (now - lastPosted < kThrottleSeconds) return nullptr;
    if (!TranslateById(kel, id, std::make_index_sequence<std::size(kRows)>{})) return nullptr;
    lastPosted = now;
    return id;
}

// A loss lets the next "synchronized" through at once, so that nobody is left believing in a loss that
// is over. Not the other way round: a clock that comes and goes would post every time.
void KeldClockCorrelator_Sync(Kel *kel)
{
    Throttle &throttle = Remembered().sync;
    const char *posted = PostOncePerHour(kel, throttle);
    if (posted != nullptr && !Kel_IsID(posted, kSynchronized)) throttle[kSynchronized] = 0;
}

void KeldClockCorrelator_CorrectionDelta(Kel *kel) { PostOncePerHour(kel, Remembered().correctionDelta); }

void KeldClockCorrelator_SetValue(Kel *kel) { PostOncePerHour(kel, Remembered().setValue); }

void KeldClockCorrelatorHandleOther(Kel *kel)
{
    const char *id = nullptr;
    if (Kel_GetID(kel, &id) != 0)
        KeldLog("FAIL: Received NULL kelID\n");
    else
        KeldLog("No system clock correlator for %s\n", id);
}

} // namespace

const KeldDomain keldClockDomain{
    .name = "Clock",
    .domains = {"clock"},
    .defaultHandler = KeldClockCorrelatorHandleOther,
    .otherwise = "named in the log",
    .observations = kObservations,
};

void KeldCorrelator_StartClock() { KeldDomainRun(keldClockDomain); }
