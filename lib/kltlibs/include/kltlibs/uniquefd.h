// A descriptor that is closed with its owner. For every thread, each object by one at a time.
#ifndef KLTLIBS_UNIQUEFD_H
#define KLTLIBS_UNIQUEFD_H

#include <unistd.h>
#include <utility>

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {} // negative: none
    UniqueFd(UniqueFd &&other) noexcept : mFd(other.Release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    int Release() { return std::exchange(mFd, -1); }
    void Reset(int fd = -1)
    {
        (void)Close();
        mFd = fd;
    }

    // 0, or -1 with errno; the descriptor is gone either way.
    int Close()
    {
        const int fd = Release();
        return fd < 0 ? 0 : close(fd);
    }

private:
    int mFd = -1;
};

#endif
