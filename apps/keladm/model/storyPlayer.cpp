// The life of a story: host, receiver and daemon of its own; then one step after the other. Each step ends
// when the daemon has settled, with all events that it has posted and all lines that it has written since
// the step before. The expectations behind a step use these up; what is left when the next step comes, or
// the end, was not expected.

#include "storyPlayer.h"

#include "eventListener.h"
#include "eventWords.h"
#include "failure.h"
#include "journalListener.h"
#include "labProcess.h"
#include "sender.h"
#include "text.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

namespace {

// A connection is never silent for too long: no time passes in a story.
constexpr ListenerLimits kListenerLimits{.idle = std::chrono::hours(24),
                                         .idleWhenFull = std::chrono::hours(24)};

// A daemon that has settled takes an observation at once, one that waits for a deaf receiver as many as
// its pipes and sockets hold.
constexpr auto kSendPatience = std::chrono::seconds(10);
constexpr auto kPatience = std::chrono::minutes(2); // with a daemon that does not answer or settle

// An event that has come, and the agent that has posted it: its events keep their order.
struct CameEvent {
    PlainEvent event;
    std::uint64_t timestamp = 0;
    std::optional<std::string> agent; // found in the log, once that has been read
};

struct Trouble : std::exception {}; // has been noted; the story ends

class StoryPlayer {
public:
    StoryPlayer(const Story &story, const std::string &program, const StopSignal &stop)
        : mStory(story), mProgram(program), mStop(stop)
    {
    }

    StoryResult Play()
    {
        mLine = mStory.line;
        mSource = mStory.heading;
        try {
            for (const HostChange &change : mStory.host)
                ApplyHostChange(change);
            mListener.emplace(kListenerLimits);
            Start();
            PlaySteps(mStory.steps);
            FinishStep();
            Stop();
        } catch (const Failure &failure) {
            Note(failure.what());
        } catch (const Trouble &) {
        }
        return mResult;
    }

private:
    void PlaySteps(std::span<const ScenarioStep> steps)
    {
        for (const ScenarioStep &step : steps) {
            if (auto repeat = std::get_if<RepeatAction>(&step.action)) {
                for (unsigned i = 0; i < repeat->count; i++)
                    PlaySteps(repeat->steps);
            } else if (auto expect = std::get_if<ExpectAction>(&step.action)) {
                Expect(step, *expect);
            } else if (auto log = std::get_if<LogAction>(&step.action)) {
                ExpectLine(step, *log);
            } else if (auto fate = std::get_if<FateAction>(&step.action)) {
                if (TakeLine(&mFates, fate->text))
                    mResult.met++;
                else
                    mUnmet.push_back(&step);
            } else {
                FinishStep();
                mLine = step.line;
                mSource = step.source;
                std::visit([this](const auto &action) { Do(action); }, step.action);
            }
        }
    }

    // ---- What is done

    void Do(const Observation &observation)
    {
        mSender->Send(observation, mNow * 1000000);
        Settle("settle");
    }

    void Do(const HostChange &change)
    {
        ApplyHostChange(change);
        Settle("settle");
    }

    void Do(const ClockAction &clock)
    {
        if (clock.setTo) Settle(fmt::format("clock set {}", *clock.setTo));
        for (std::uint64_t target = mNow + clock.forward; mNow < target;)
            Settle(fmt::format("clock to {}", target));
    }

    void Do(const ReceiverAction &action)
    {
        mDeaf = action == ReceiverAction::Deaf;
        if (action == ReceiverAction::Away) {
            mListener.reset();
        } else {
            if (!mListener) mListener.emplace(kListenerLimits);
            mListener->SetDeaf(mDeaf);
        }
        Settle("settle");
    }

    void Do(const RestartAction &)
    {
        Stop();
        Start();
    }

    template <typename Other> void Do(const Other &) {} // not here, or not in stories

    void Start()
    {
        mLab.emplace(mProgram, mDirectory.Path() + "/daemon.err", mNow, mLog.Fd());
        mSender.emplace(mStop.Get(), kSendPatience);
        Settle("settle");
        mJournal.emplace(Clock::now() + kPatience);
    }

    void Stop()
    {
        mSender.reset();
        if (auto trouble = mLab->Stop()) throw Failure(kExitFailed, *trouble);
        TakeFates();
        mJournal->CheckBooks();
        if (!mJournal->HasEnded()) throw Failure(kExitFailed, "the journal has no end");
        mJournal.reset();
    }

    // ---- What comes of it

    // Gives a command and returns when all that is due has happened, and has been taken. Nobody waits for
    // a daemon that waits for a deaf receiver; one that waits for this receiver is served, and asked again.
    void Settle(const std::string &command)
    {
        auto until = Clock::now() + kPatience;
        std::string busy = Ask(command, until);
        while (!busy.empty() && !mDeaf) {
            if (Clock::now() >= until) throw Failure(kExitFailed, "the daemon does not settle: " + busy);
            busy = Ask("settle", until);
        }
        while (mListener && TakeEvents(Clock::now(), {})) {
        }
        TakeFates();
        if (mJournal && busy.empty()) mJournal->CheckBooks();
        for (std::string &line : mLog.TakeLines()) {
            if (auto trace = ParseLabTrace(line); trace && trace->id.starts_with("nox."))
                mTraces.push_back(std::move(*trace));
            mLines.push_back(std::move(line));
        }
        for (CameEvent &came : mEvents)
            if (!came.agent) came.agent = TakePoster(came);
    }

    // Who is busy. Takes the events and the journal's entries that come meanwhile: a full backlog would
    // lock both, and a journal that is not read is never quiet.
    std::string Ask(const std::string &command, Clock::time_point until)
    {
        mLab->Command(command);
        for (;;) {
            pollfd fds[] = {
                {mStop.Get(), POLLIN, 0}, mLab->Watch(), mJournal ? mJournal->Watch() : pollfd{-1, 0, 0}};
            if (mListener)
                TakeEvents(until, fds);
            else
                PollUntil(fds, until);
            if (fds[0].revents != 0) throw Stopped{};
            TakeFates();
            auto answer = mLab->TakeAnswer();
            if (answer.complete) {
                mNow = answer.seconds;
                return answer.busy;
            }
            if (Clock::now() >= until)
                throw Failure(kExitFailed, fmt::format("{} does not answer as keld-lab does", mProgram));
        }
    }

    bool TakeEvents(Clock::time_point until, std::span<pollfd> others)
    {
        auto records = mListener->Wait(until, others);
        for (const ReceivedRecord &record : records)
            mEvents.push_back({ToPlainEvent(record), record.event ? record.event->timestamp : 0, {}});
        return !records.empty();
    }

    void TakeFates()
    {
        if (mJournal) std::ranges::move(mJournal->TakeFates(), std::back_inserter(mFates));
    }

    // Each event left a trace line, on the thread that posted it, whoever has sent it since.
    std::string TakePoster(const CameEvent &came)
    {
        auto found = std::ranges::find_if(mTraces, [&](const LabTrace &trace) {
            return trace.id == came.event.type && trace.timestamp == came.timestamp;
        });
        if (found == mTraces.end()) return "";
        std::string thread = found->thread;
        mTraces.erase(found);
        return thread;
    }

    // ---- What was expected

    // Takes the first event of any agent that meets it. Later events of an agent are not looked at, since
    // an agent's events keep their order.
    void Expect(const ScenarioStep &step, const ExpectAction &expect)
    {
        if (expect.none) { // of what is left
            mResult.met++;
            return;
        }
        std::set<std::string> seen;
        for (auto came = mEvents.begin(); came != mEvents.end(); ++came) {
            if (!seen.insert(*came->agent).second) continue;
            if (!Meets(expect, came->event.type, came->event.arguments)) continue;
            mEvents.erase(came);
            mResult.met++;
            return;
        }
        mUnmet.push_back(&step);
    }

    void ExpectLine(const ScenarioStep &step, const LogAction &log)
    {
        if (log.none) {
            mNoMoreLines = &step;
            return;
        }
        if (TakeLine(&mLines, log.text))
            mResult.met++;
        else
            mUnmet.push_back(&step);
    }

    // The first that contains the text.
    static bool TakeLine(std::vector<std::string> *lines, const ArgumentWord &text)
    {
        auto found = std::ranges::find_if(*lines, [&](const std::string &line) {
            return text.quoted ? line.find(text.text) != std::string::npos
                               : GlobMatches("*" + text.text + "*", line);
        });
        if (found == lines->end()) return false;
        lines->erase(found);
        return true;
    }

    // Before the next step, or at the end.
    void FinishStep()
    {
        std::vector<std::string> lines; // but for the trace of observations and events
        std::ranges::copy_if(mLines, std::back_inserter(lines),
                             [](const std::string &line) { return !ParseLabTrace(line); });
        bool tooManyLines = mNoMoreLines != nullptr && !lines.empty();
        if (mNoMoreLines != nullptr) tooManyLines ? mUnmet.push_back(mNoMoreLines) : void(mResult.met++);
        if (!mUnmet.empty() || !mEvents.empty()) {
            Note("");
            throw Trouble();
        }
        mLines.clear();
        mFates.clear();
        mNoMoreLines = nullptr;
    }

    void Note(const std::string &what)
    {
        StoryTrouble &trouble = mResult.trouble.emplace(StoryTrouble{mLine, mSource, what, {}, {}});
        bool linesMatter = false, fatesMatter = false;
        for (const ScenarioStep *step : mUnmet) {
            trouble.expected.push_back(fmt::format("line {}: {}", step->line, step->source));
            linesMatter = linesMatter || std::holds_alternative<LogAction>(step->action);
            fatesMatter = fatesMatter || std::holds_alternative<FateAction>(step->action);
        }
        for (const CameEvent &came : mEvents)
            trouble.came.push_back(came.event.ToText() + WhyNot(came));
        for (const std::string &line : mLines)
            if (linesMatter && !ParseLabTrace(line)) trouble.came.push_back("log " + Printable(line));
        for (const std::string &fate : mFates)
            if (fatesMatter) trouble.came.push_back("fate " + Printable(fate));
    }

    // Why the event is none of those that are missing.
    std::string WhyNot(const CameEvent &came) const
    {
        for (const ScenarioStep *step : mUnmet) {
            auto expect = std::get_if<ExpectAction>(&step->action);
            if (expect == nullptr) continue;
            auto difference = Difference(*expect, came.event.type, came.event.arguments);
            if (!difference)
                return fmt::format(" (behind another one of {})", came.agent.value_or("its agent"));
            if (!difference->empty()) return fmt::format(" ({})", *difference);
        }
        return "";
    }

    const Story &mStory;
    const std::string mProgram;
    const StopSignal &mStop;
    const PrivateRunDirectory mDirectory;
    LabLog mLog;
    std::optional<EventListener> mListener;
    std::optional<LabProcess> mLab;
    std::optional<Sender> mSender;
    std::optional<JournalListener> mJournal;
    bool mDeaf = false;
    std::uint64_t mNow = LabProcess::kStart;
    std::vector<LabTrace> mTraces; // of what may still come as an event
    StoryResult mResult;

    // The present step: what has come of it, and of its expectations those that were not met.
    size_t mLine = 0;
    std::string mSource;
    std::vector<CameEvent> mEvents;
    std::vector<std::string> mLines;
    std::vector<std::string> mFates; // and outcomes
    std::vector<const ScenarioStep *> mUnmet;
    const ScenarioStep *mNoMoreLines = nullptr;
};

} // namespace

StoryResult PlayStory(const Story &story, const std::string &program, const StopSignal &stop)
{
    return StoryPlayer(story, program, stop).Play();
}
