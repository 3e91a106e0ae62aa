// Files and directories, as the channels and the host inventory need them.
#ifndef KLTLIBS_SRC_FILES_H
#define KLTLIBS_SRC_FILES_H

#include <string>
#include <unistd.h>
#include <utility>

class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        Reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1)
    {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Makes a directory of mode 0755, and those above it, when missing: 0 or an errno value.
int KltMakeDirectory(const std::string &path);

#endif
