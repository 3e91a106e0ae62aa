// Files and directories, as the channels and the host inventory need them.
#ifndef KLTLIBS_SRC_FILES_H
#define KLTLIBS_SRC_FILES_H

#include <string>
#include <unistd.h>
#include <utility>

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        Reset(std::exchange(other.mFd, -1));
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    int Release() { return std::exchange(mFd, -1); }
    void Reset(int fd = -1)
    {
        if (mFd >= 0) close(mFd);
        mFd = fd;
    }

private:
    int mFd = -1;
};

// Makes a directory of mode 0755, and those above it, when missing: 0 or an errno value.
int KltMakeDirectory(const std::string &path);

#endif
