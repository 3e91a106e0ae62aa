// The system clock.
//
// Arrives    parameters of the clock discipline set, its state reset; large steps of the clock;
//            synchronisation with upstream time servers lost and found.
// Remembers  for each observation ID, when it was last posted.
// Posts      one problem for each, and for the same ID at most one an hour; a loss of synchronisation
//            lets the next "synchronized" through at once.
// Time       the hour, which a failed read does not start.
//
// The hour is measured with the same clock that is observed: when it is set back, an ID stays silent
// until the clock is an hour past that ID's last event.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldHoldOff.h"

namespace {

void KeldClockCorrelator_Sync(Kel *kel);
void KeldClockCorrelator_CorrectionDelta(Kel *kel);
void KeldClockCorrelator_SetValue(Kel *kel);

constexpr KeldRowOptions kSync{.handler = KeldClockCorrelator_Sync};
constexpr KeldRowOptions kCorrectionDelta{.handler = KeldClockCorrelator_CorrectionDelta};
constexpr KeldRowOptions kSetValue{.handler = KeldClockCorrelator_SetValue};

constexpr const char *kSynchronized = "kel.clock.correction.adjtime.sync";

// clang-format off
constexpr Translation kRows[] = {
    {"kel.clock.correction.step.unsync", Args("%d %d", "seconds, nanoseconds"),
     "@&!*@*@(nox.problem.clock.correction.step.unsync)system clock stepped to %d.%09d, lost sync to upstream time servers", kSync},
    {kSynchronized, Args(""),
     "@&!*@*@(nox.problem.clock.correction.adjtime.sync)system clock synchronized to upstream time servers", kSync},
    {"kel.clock.correction.adjtime.unsync", Args(""),
     "@&!*@*@(nox.problem.clock.correction.adjtime.unsync)system clock lost synchronization to upstream time servers", kSync},
    {"kel.clock.correction.adjtime.lostsync", Args(""),
     "@&!*@*@(nox.problem.clock.correction.adjtime.lostsync)system clock apparently no longer synchronized to upstream time servers", kSync},
    {"kel.clock.correction.delta.warning", Args("%d %d %d %d %d %d", "seconds, nanoseconds, delta, limit, corrections, correctionsMax"),
     "@&!*@*@(nox.problem.clock.correction.delta.warning)system clock stepped to %d.%09d, but delta %d > %d seconds, %d/%d large corrections", kCorrectionDelta},
    {"kel.clock.correction.delta.failed", Args("%d %d %d %d %d", "seconds, nanoseconds, delta, limit, correctionsMax"),
     "@&!*@*@(nox.problem.clock.correction.delta.failed)system clock step to %d.%09d failed, delta %d > %d seconds, number of large corrections > %d", kCorrectionDelta},
    {"kel.clock.correction.delta.allowed", Args("%d %d %d %d", "seconds, nanoseconds, delta, limit"),
     "@&!*@*@(nox.problem.clock.correction.delta.allowed)system clock stepped to %d.%09d, but delta %d > %d seconds", kCorrectionDelta},
    {"kel.clock.state.reset", Args(""),
     "@&!*@*@(nox.problem.clock.state.reset)resetting system clock state", kSetValue},
    {"kel.clock.parameter.set.maxNegPhaseCorrection", Args("%d", "value"),
     "@&!*@*@(nox.problem.clock.parameter.set.maxNegPhaseCorrection)setting system clock parameter maxNegPhaseCorrection to %d", kSetValue},
    {"kel.clock.parameter.set.maxPosPhaseCorrection", Args("%d", "value"),
     "@&!*@*@(nox.problem.clock.parameter.set.maxPosPhaseCorrection)setting system clock parameter maxPosPhaseCorrection to %d", kSetValue},
    {"kel.clock.parameter.set.numLargeCorrections", Args("%d", "value"),
     "@&!*@*@(nox.problem.clock.parameter.set.numLargeCorrections)setting system clock parameter numLargeCorrections to %d", kSetValue},
    {"kel.clock.parameter.set.maxLargeCorrections", Args("%d", "value"),
     "@&!*@*@(nox.problem.clock.parameter.set.maxLargeCorrections)setting system clock parameter maxLargeCorrections to %d", kSetValue},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.clock."), "a row stands twice, or outside its domain");

constexpr auto kObservations = KeldObservationsOf<kRows>([](const Translation &row) {
    const char *note = std::string_view(row.id) == kSynchronized
                           ? "posted at most once in {holdOff}, and at once after a loss that was posted"
                           : "posted at most once in {holdOff}";
    return KeldObservation{row.id, row.arguments, row.handler, {note, kClockHoldOff}, {&row.event}};
});

KeldHoldOff &holdOff = *new KeldHoldOff(kClockHoldOff); // by observation ID

// The ID of what was posted, borrowed from kel; null when nothing was.
template <KeldHandler kHandler> const char *PostUnlessHeldOff(Kel *kel)
{
    const char *id = nullptr;
    if (Kel_GetID(kel, &id) != 0) return nullptr;
    const std::uint64_t now = KeldNowSeconds();
    if (!holdOff.IsOver(id, now)) return nullptr;
    if (KeldTranslateById<kRows, kHandler>(kel) != KeldTranslated::Posted) return nullptr;
    holdOff.Begin(id, now);
    return id;
}

// A loss lets the next "synchronized" through at once, so that nobody goes on believing in a loss that
// is over. A "synchronized" does not let the next loss through: a clock that keeps losing and finding its
// servers would post every time.
void KeldClockCorrelator_Sync(Kel *kel)
{
    const char *posted = PostUnlessHeldOff<KeldClockCorrelator_Sync>(kel);
    if (posted != nullptr && !Kel_IsID(posted, kSynchronized)) holdOff.End(kSynchronized);
}

void KeldClockCorrelator_CorrectionDelta(Kel *kel)
{
    PostUnlessHeldOff<KeldClockCorrelator_CorrectionDelta>(kel);
}

void KeldClockCorrelator_SetValue(Kel *kel) { PostUnlessHeldOff<KeldClockCorrelator_SetValue>(kel); }

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
