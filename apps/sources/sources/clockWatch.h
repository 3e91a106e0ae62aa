// What is told of the system clock, from what it is found to be.
#ifndef SOURCES_CLOCKWATCH_H
#define SOURCES_CLOCKWATCH_H

#include "row.h"

#include <cstdint>
#include <optional>
#include <span>

// One look at the clock.
struct ClockLook {
    std::int64_t wallNanoseconds = 0;   // since the epoch
    std::int64_t steadyNanoseconds = 0; // of a clock that nobody sets, and that runs in suspend
    bool synchronised = false;
    bool errorRanOut = false; // nobody has told the kernel of the clock's error for so long that it gave up
};

class ClockWatch {
public:
    explicit ClockWatch(Emit emit) : mEmit(std::move(emit)) {}
    static std::span<const Row> Rows();

    // stepped: the kernel says that the clock was set. The first look tells nothing.
    void Take(const ClockLook &look, bool stepped);

private:
    const Emit mEmit;
    std::optional<ClockLook> mLast;
};

#endif
