// Knows when all that is due in the daemon has happened, and moves its clock no sooner.
#ifndef LAB_LABORATORY_H
#define LAB_LABORATORY_H

#include "handClock.h"

#include <keldSignal.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Make it on the main thread before KeldMain, and never destroy it. Settle and what moves the clock may be
// called by one other thread only.
class Laboratory : public KeldLookOut {
public:
    explicit Laboratory(HandClock &clock);

    // Returns "" once every thread waits, nothing waits for any of them, and every listener to the journal
    // has all of it. When this cannot come about because threads wait for somebody outside, returns who
    // they are: "SCSICorrelator posts". After a minute it says the same of those that still run.
    std::string Settle();

    // Moves the clock to the next second at which something falls due, at most to target, and settles.
    std::string MoveTowards(std::uint64_t target);

    // Sets the clock, also backwards, and settles.
    std::string Set(std::uint64_t seconds);

    // ---- Of the daemon's threads

    void AgentBegins() override;
    void AgentEnds() override;
    void Waits(const pollfd *fds, nfds_t count) override;
    void Left() override;

private:
    // Of the main thread and of each agent.
    struct Seat {
        std::string name;
        bool waits = false;
        std::vector<pollfd> fds; // for which it waits
    };

    Seat &OwnSeat() { return mSeats[std::this_thread::get_id()]; } // mMutex held
    bool NothingToDo();
    std::uint64_t Moves();
    bool MovesSince(std::uint64_t moves);
    std::string Busy();

    HandClock &mClock;
    const std::thread::id mMainThread = std::this_thread::get_id();
    std::mutex mMutex;
    std::condition_variable mMoved;
    std::map<std::thread::id, Seat> mSeats;
    std::uint64_t mMoves = 0;
};

#endif
