#include "observation.h"

#include "unixSocket.h"
#include "waitFor.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <system_error>

namespace {

constexpr int kSendBufferBytes = 4 << 20;

void Require(int error, const char *what)
{
    if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

__attribute__((format(printf, 2, 0))) RecordBytes MakeRecordVA(const char *id, const char *format,
                                                               va_list args)
{
    RecordBytes record(KELPRODUCER_RECORD_BYTES_MAX);
    std::size_t length = 0;
    Require(KelRecord_BuildVA(record.data(), record.size(), &length, kObservationTime, id, format, args),
            id);
    record.resize(length);
    record.shrink_to_fit();
    return record;
}

} // namespace

RecordBytes MakeRecord(const char *id, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    RecordBytes record = MakeRecordVA(id, format, args);
    va_end(args);
    return record;
}

TestKel MakeKel(const char *id, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const RecordBytes record = MakeRecordVA(id, format, args);
    va_end(args);
    return MakeKel(record);
}

TestKel MakeKel(std::span<const std::byte> record)
{
    void *buffer = std::malloc(record.size());
    std::memcpy(buffer, record.data(), record.size());
    Kel *kel = nullptr;
    const int error = Kel_MakeKel(buffer, static_cast<std::uint32_t>(record.size()), &kel);
    if (error != 0) std::free(buffer);
    Require(error, "Kel_MakeKel");
    return TestKel(kel, Kel_Free);
}

void Send(int context, const char *id, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const RecordBytes record = MakeRecordVA(id, format, args);
    va_end(args);
    Require(RawProducer(context).Send(record), id);
}

RawProducer::RawProducer(int context)
    : mFd(context == KELPRODUCER_USER_CONTEXT
              ? ConnectTo(RunPath("kel/user.sock"), SOCK_SEQPACKET)
              : ConnectTo(RunPath("kel/async-" + std::to_string(context) + ".sock"), SOCK_DGRAM))
{
    // A datagram larger than the daemon's largest buffer needs more room than the system gives.
    setsockopt(mFd.Get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
}

int RawProducer::Send(std::span<const std::byte> bytes)
{
    return send(mFd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
}

bool RawProducer::WaitUntilClosed()
{
    return (WaitForEvents(mFd.Get(), POLLIN | POLLRDHUP) & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}
