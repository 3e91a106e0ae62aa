// Observations, made and sent.
#ifndef TESTSUPPORT_OBSERVATION_H
#define TESTSUPPORT_OBSERVATION_H

#include <cstddef>
#include <cstdint>
#include <kelproducer.h>
#include <kltlibs/kel.h>
#include <kltlibs/uniquefd.h>
#include <memory>
#include <span>
#include <string>
#include <vector>

// The time stamp of every observation made here: 2026-03-01 12:00:00 UTC.
constexpr std::uint64_t kObservationTime = 1772366400000000;

using TestKel = std::unique_ptr<Kel, void (*)(Kel *)>;
using RecordBytes = std::vector<std::byte>;

// One observation as an object: MakeKel("kel.scsi.device.close", "%s", "naa.1"). Throws
// std::runtime_error when the record cannot be built or is refused; so do the others here.
TestKel MakeKel(const char *id, const char *format, ...) __attribute__((format(printf, 2, 3)));
TestKel MakeKel(std::span<const std::byte> record);

// One observation as a raw record.
RecordBytes MakeRecord(const char *id, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Sends one observation to a running daemon: contexts 0-21, or 22 for the user-level one, over a
// connection of its own.
void Send(int context, const char *id, const char *format, ...) __attribute__((format(printf, 3, 4)));

// A producer at the level of the socket, for what no well-behaved one does. Connects in its
// constructor. One thread at a time.
class RawProducer {
public:
    explicit RawProducer(int context);

    int Fd() const { return mFd.Get(); }

    // Sends one datagram or packet, whatever is in it; waits while the daemon is busy. 0 or an errno
    // value (EPIPE when the daemon has closed the connection).
    int Send(std::span<const std::byte> bytes);

    // True as soon as the daemon has closed or shut the connection.
    bool WaitUntilClosed();

private:
    UniqueFd mFd;
};

#endif
