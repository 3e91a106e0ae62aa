#include "observation.h"

#include "waitFor.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <kltlibs/rundir.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

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
    void *buffer = std::malloc(record.size());
    std::memcpy(buffer, record.data(), record.size());
    Kel *kel = nullptr;
    const int error = Kel_MakeKel(buffer, static_cast<std::uint32_t>(record.size()), &kel);
    if (error != 0) std::free(buffer);
    Require(error, id);
    return TestKel(kel, Kel_Free);
}

void Send(int context, const char *id, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const RecordBytes record = MakeRecordVA(id, format, args);
    va_end(args);
    KelProducer *producer = nullptr;
    Require(KelProducer_Open(context, &producer), "KelProducer_Open");
    const int error = KelProducer_Send(producer, record.data(), record.size());
    KelProducer_Close(producer);
    Require(error, id);
}

RawProducer::RawProducer(int context)
    : mFd(socket(AF_UNIX,
                 (context == KELPRODUCER_USER_CONTEXT ? SOCK_SEQPACKET : SOCK_DGRAM) | SOCK_CLOEXEC, 0))
{
    const std::string name = context == KELPRODUCER_USER_CONTEXT
                                 ? "kel/user.sock"
                                 : "kel/async-" + std::to_string(context) + ".sock";
    // A datagram larger than the daemon's largest buffer needs more room than the system gives.
    setsockopt(mFd, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Require(KltRunDir_Path(name.c_str(), address.sun_path, sizeof address.sun_path), "run directory");
    if (connect(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        close(mFd);
        Require(error, name.c_str());
    }
}

RawProducer::~RawProducer()
{
    if (mFd >= 0) close(mFd);
}

RawProducer::RawProducer(RawProducer &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}

RawProducer &RawProducer::operator=(RawProducer &&other) noexcept
{
    std::swap(mFd, other.mFd);
    return *this;
}

int RawProducer::Send(std::span<const std::byte> bytes)
{
    return send(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
}

bool RawProducer::WaitUntilClosed()
{
    pollfd state{mFd, POLLIN | POLLRDHUP, 0};
    return poll(&state, 1, static_cast<int>(std::chrono::milliseconds(kWaitLimit).count())) == 1 &&
           (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}
