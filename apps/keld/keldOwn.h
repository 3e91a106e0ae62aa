// Owning types for what the platform hands out in C's way.
#ifndef KELD_OWN_H
#define KELD_OWN_H

#include <kltlibs/kel.h>
#include <kltlibs/kif.h>

#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) {
            (void)Close();
            mFd = std::exchange(other.mFd, -1);
        }
        return *this;
    }
    ~UniqueFd() { (void)Close(); }

    int Get() const { return mFd; }
    int Release() { return std::exchange(mFd, -1); }

    // 0, or -1 with errno; the descriptor is gone either way.
    int Close()
    {
        const int fd = Release();
        return fd < 0 ? 0 : close(fd);
    }

private:
    int mFd = -1;
};

struct FreeDeleter {
    void operator()(void *memory) const { std::free(memory); }
};
template <class T> using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// A text that a library formatted for the caller to free.
using MessageText = MallocPtr<char>;

struct KelDeleter {
    void operator()(Kel *kel) const { Kel_Free(kel); }
};
using KelPtr = std::unique_ptr<Kel, KelDeleter>;

struct KifParamListDeleter {
    void operator()(KifParamList *list) const { KIF_ParamListDestroy(list); }
};
using KifParamListPtr = std::unique_ptr<KifParamList, KifParamListDeleter>;

#endif
