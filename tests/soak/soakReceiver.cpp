#include "soakReceiver.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <kltlibs/rundir.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kBacklog = 4096;
constexpr int kLookAgainMilliseconds = 10;

sockaddr_un Address()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    KltRunDir_Path("carad-pling.sock", address.sun_path, sizeof address.sun_path);
    return address;
}

} // namespace

SoakReceiver::SoakReceiver()
{
    ComeBack();
    mThread = std::thread([this] { Serve(); });
}

SoakReceiver::~SoakReceiver()
{
    mStopped = true;
    mThread.join();
    close(mListener);
    close(mFormer);
}

void SoakReceiver::GoAway()
{
    unlink(Address().sun_path);
    mAway = true;
}

void SoakReceiver::ComeBack()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = Address();
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, kBacklog) != 0)
        throw std::system_error(errno, std::generic_category(), address.sun_path);
    const std::lock_guard guard(mMutex);
    close(std::exchange(mFormer, std::exchange(mListener, fd)));
    mAway = false;
}

std::vector<EventRecord> SoakReceiver::Take()
{
    const std::lock_guard guard(mMutex);
    return std::exchange(mEvents, {});
}

void SoakReceiver::Serve()
{
    while (!mStopped) {
        pollfd waiting[2]{};
        {
            const std::lock_guard guard(mMutex);
            if (mFormer >= 0) DrainOne(mFormer); // first what came first
            DrainOne(mListener);
            waiting[0] = {mFormer, POLLIN, 0};
            waiting[1] = {mListener, POLLIN, 0};
        }
        poll(waiting, 2, kLookAgainMilliseconds);
    }
}

void SoakReceiver::DrainOne(int listener)
{
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(fd)) {
        std::vector<std::byte> record;
        std::byte piece[4096];
        for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;)
            record.insert(record.end(), piece, piece + got);
        EventRecord event;
        std::string error;
        if (EventRecord_Decode(record, &event, &error) == 0)
            mEvents.push_back(std::move(event));
        else
            ADD_FAILURE() << "not an event record: " << error;
    }
}
