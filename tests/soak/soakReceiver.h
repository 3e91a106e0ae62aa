// A receiver that goes away and comes back without losing what it was already given.
#ifndef TESTS_SOAK_SOAKRECEIVER_H
#define TESTS_SOAK_SOAKRECEIVER_H

#include <atomic>
#include <eventRecord.h>
#include <mutex>
#include <thread>
#include <vector>

// Serves carad-pling.sock in the run directory on a thread of its own, from the beginning. A record that
// does not decode fails the test.
class SoakReceiver {
public:
    SoakReceiver();
    ~SoakReceiver();

    // Nobody can connect any more; those who have are still served, until the next time it goes.
    void GoAway();
    void ComeBack();
    bool IsAway() const { return mAway; }

    // What has come since the last call. Any thread.
    std::vector<EventRecord> Take();

private:
    void Serve();
    void DrainOne(int listener);

    std::mutex mMutex;
    std::vector<EventRecord> mEvents;
    int mListener = -1;
    int mFormer = -1; // may hold what was sent to it before it went
    bool mAway = true;
    std::atomic<bool> mStopped = false;
    std::thread mThread;
};

#endif
