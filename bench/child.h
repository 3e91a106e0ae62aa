// The daemon, or its floor, as a process of its own, and what it uses.
#ifndef BENCH_CHILD_H
#define BENCH_CHILD_H

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>

// Starts a program that serves the run directory named in KALTOR_RUN_DIR, and stops it at the end. It
// dies with this process. Throws std::runtime_error when it does not start or does not stop.
class Child {
public:
    explicit Child(const std::string &program, const char *argument = nullptr);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // Returns when its last socket, the trace listener, is there.
    void WaitUntilReady() const;

    // Returns when it has nothing left to do: all of its threads sleep and none has run for a while. When
    // one was last seen to have run.
    std::chrono::steady_clock::time_point WaitUntilIdle() const;

    std::chrono::nanoseconds ProcessorTime() const; // used so far by all threads
    std::uint64_t Wakeups() const;                  // how often one of its threads has gone to sleep
    std::uint64_t ResidentKiB() const;

private:
    std::string Said() const;

    int mSaid; // a file in memory with what it says on standard error: told when it does not become ready
    pid_t mPid;
};

#endif
