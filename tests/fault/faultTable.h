// Which calls of the daemon fail, as its tests want it: a table in a file that both have mapped.
//
// The daemon runs as it is shipped, with preload/faults.cpp before libc. The test may change the table
// at any time.
#ifndef TESTS_FAULT_FAULTTABLE_H
#define TESTS_FAULT_FAULTTABLE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

// The libc functions that can fail; Memory is malloc, calloc and realloc.
enum class Seam : std::size_t {
    Accept,
    Bind,
    Cancel,
    Connect,
    GetTimeOfDay,
    Join,
    Listen,
    Memory,
    Open,
    Pipe,
    Pipe2,
    Poll,
    Ppoll,
    Read,
    Recv,
    Send,
    Sigaction,
    Socket,
    Thread,
    Unlink,
    Write,
};
constexpr std::size_t kSeams = static_cast<std::size_t>(Seam::Write) + 1;

struct FaultSlot {
    std::atomic<int> error; // 0: nothing fails; set last, cleared first

    // Which calls are meant; an empty text and a size of 0 mean any.
    std::array<char, 16> thread; // the beginning of the thread's name as the kernel has it
    std::array<char, 64> path;   // a part of the path
    std::size_t size;            // the bytes asked for

    // Of those: how many pass first, how many fail then, and how many have failed.
    std::atomic<std::int64_t> passes;
    std::atomic<std::int64_t> failures;
    std::atomic<std::int64_t> failed;
};
static_assert(std::atomic<std::int64_t>::is_always_lock_free, "two processes share it");

using FaultTable = std::array<FaultSlot, kSeams>;

constexpr const char *kFaultTableVariable = "KELD_FAULT_TABLE"; // names the file

#endif
