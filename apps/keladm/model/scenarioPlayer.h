// Plays a scenario in the time that it takes, and compares what comes with what it expects, or shows it.
#ifndef KELADM_SCENARIOPLAYER_H
#define KELADM_SCENARIOPLAYER_H

#include "console.h"
#include "eventListener.h"
#include "eventWords.h"
#include "privateHost.h"
#include "scenario.h"
#include "sender.h"
#include "traceConnection.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

// What a host of one's own has, beside the run directory.
struct OwnHost {
    EventListener listener;
    DaemonProcess daemon;
};

struct PlayerOptions {
    bool check = false; // what comes with what is expected; else what comes is shown
    double speed = 1;   // divides the pauses
    bool asJson = false;
};

class ScenarioPlayer {
public:
    // Without a host, plays to the daemon that is there already, whose events it sees in the trace. Borrows
    // all three. Throws Failure.
    ScenarioPlayer(const PlayerOptions &options, const StopSignal &stop, OwnHost *host);

    // Finds the daemon before anything is changed. Throws Failure.
    void Connect(std::span<const ScenarioStep> steps);

    // Returns when the daemon has taken all and, where nothing is compared, has had some seconds for what
    // it holds back. Throws Failure, Stopped.
    void Play(std::span<const ScenarioStep> steps);

    // Reports how it went; trouble is what the daemon's end brought. True when all was as expected.
    bool Finish(const std::optional<std::string> &trouble);

private:
    void PlaySteps(std::span<const ScenarioStep> steps);
    void Do(const ScenarioStep &step, const Observation &observation);
    void Do(const ScenarioStep &step, const HostChange &change);
    void Do(const ScenarioStep &step, const PauseAction &pause);
    void Do(const ScenarioStep &step, const ExpectAction &expect);
    template <typename Other> void Do(const ScenarioStep &, const Other &) {} // Play's own, or a story's

    void ExpectEvent(const ScenarioStep &step, const ExpectAction &expect, Clock::time_point until);
    void ExpectNone(const ScenarioStep &step, const ExpectAction &expect, Clock::time_point until);
    std::vector<PlainEvent>::iterator FindEvent(const ExpectAction &expect);
    void WaitUntil(Clock::time_point until);
    void WaitSome(Clock::time_point until);
    void AwaitTrace();
    void TakeTrace();
    void Take(PlainEvent event);
    void Report(const ScenarioStep &step);
    void Result(const ScenarioStep &step, const ExpectAction &expect, bool met, const std::string &what,
                const std::vector<PlainEvent> &events);
    std::string Failed() const { return mOut.Colour() ? "\x1b[31mFAILED\x1b[0m" : "FAILED"; }
    double Elapsed() const;

    const PlayerOptions &mOptions;
    OwnHost *mHost;
    std::optional<TraceConnection> mTrace; // without one
    const StopSignal &mStop;
    Output mOut;
    Sender mSender;
    Clock::time_point mStart = Clock::now();
    std::vector<PlainEvent> mWaiting; // have come and met no expectation yet
    unsigned mMet = 0;
    unsigned mFailed = 0;
};

#endif
