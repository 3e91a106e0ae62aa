#include "keldFate.h"

#include "keldJournal.h"
#include "keldStatus.h"

#include <kltlibs/ktime.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

// Who has said the fate, in ascending rank: a lower rank does not overrule a higher one.
enum class Said { Not, ByFramework, ByHandler, ByEvent };

struct Present {
    KeldOrigin origin;
    bool handling = false;
    Said said = Said::Not;
    KeldFate fate{};
    char text[kKeldFateCharsMax + 1] = "";
    KeldOrigins *origins = nullptr; // the scope, when one is open
};
thread_local Present tPresent;

std::atomic<std::uint64_t> gMissing{0};

__attribute__((format(printf, 2, 0))) void Render(char *text, const char *format, va_list args)
{
    text[0] = '\0';
    if (KeldJournalHeard()) (void)std::vsnprintf(text, kKeldFateCharsMax + 1, format, args);
}

__attribute__((format(printf, 3, 0))) void Say(Said who, KeldFate fate, const char *format, va_list args)
{
    Present &present = tPresent;
    if (!present.handling || who < present.said) return;
    present.said = who;
    present.fate = fate;
    Render(present.text, format, args);
}

} // namespace

void KeldSay(KeldFate fate, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    // These two hold even when the handler has posted an event.
    const bool goesOn = fate == KeldFate::Gathered || fate == KeldFate::HandlerFailed;
    Say(goesOn ? Said::ByEvent : Said::ByHandler, fate, format, args);
    va_end(args);
}

void KeldSayByItself(KeldFate fate, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    Say(Said::ByFramework, fate, format, args);
    va_end(args);
}

bool KeldHasFate() { return tPresent.said != Said::Not; }

KeldOrigin KeldPresent() { return tPresent.origin; }

std::uint64_t KeldFatesMissing() { return gMissing.load(std::memory_order_relaxed); }

KeldTimeOfDay::KeldTimeOfDay(std::uint64_t secondsSinceEpoch)
{
    if (!KeldJournalHeard()) return;
    tm local{};
    KTime_LocalTime(static_cast<time_t>(secondsSinceEpoch), &local);
    (void)std::strftime(text, sizeof text, "%H:%M:%S", &local);
}

KeldHandling::KeldHandling(KeldOrigin origin)
{
    tPresent.origin = origin;
    tPresent.handling = true;
    tPresent.said = Said::Not;
}

KeldHandling::~KeldHandling()
{
    Present &present = tPresent;
    if (present.said == Said::Not) {
        gMissing.fetch_add(1, std::memory_order_relaxed);
    } else {
        KeldStatusFate(present.fate);
        if (present.origin.count != 0)
            KeldJournalTellWithNext(
                [&] { return JournalFateEntry{present.origin, present.fate, present.text}; });
    }
    // The fate, and what an event has left before it: also when the listener has gone meanwhile, else the
    // next one would get it, as if it were new.
    KeldJournalHandOver();
    present.origin = {};
    present.handling = false;
}

KeldOrigins::KeldOrigins() { tPresent.origins = this; }

KeldOrigins::~KeldOrigins()
{
    tPresent.origins = nullptr;
    if (mCount == 0) return;
    if (mOutcome == KeldOutcome{}) mOutcome = mPosted ? KeldOutcome::Posted : KeldOutcome::Discarded;
    KeldJournalTell([this] {
        const auto named = Named();
        return JournalOutcomeEntry{mOutcome, {named.begin(), named.end()}, Unnamed(), mText};
    });
}

void KeldOrigins::Add(KeldOrigin origin)
{
    if (origin.count == 0) return;
    if (mCount < mNamed.size()) mNamed[mCount] = origin;
    ++mCount;
}

void KeldOrigins::Became(KeldOutcome outcome, const char *format, ...)
{
    mOutcome = outcome;
    va_list args;
    va_start(args, format);
    Render(mText, format, args);
    va_end(args);
}

KeldCause::KeldCause() : fateFollows(tPresent.handling)
{
    if (KeldOrigins *origins = tPresent.origins) {
        origins->mPosted = true;
        named = origins->Named();
        unnamed = origins->Unnamed();
        return;
    }
    if (tPresent.origin.count != 0) named = {&tPresent.origin, 1};
    if (!tPresent.handling) return;
    tPresent.said = Said::ByEvent;
    tPresent.fate = KeldFate::Posted;
    tPresent.text[0] = '\0';
}
