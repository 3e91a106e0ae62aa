// A mutex that clang's thread-safety analysis knows, and the annotations.
#ifndef KELD_MUTEX_H
#define KELD_MUTEX_H

#include <mutex>

#if defined(__clang__)
#define KELD_ANNOTATE(x) __attribute__((x))
#else
#define KELD_ANNOTATE(x)
#endif
#define GUARDED_BY(mutex) KELD_ANNOTATE(guarded_by(mutex))
#define REQUIRES(mutex) KELD_ANNOTATE(requires_capability(mutex))

class KELD_ANNOTATE(capability("mutex")) KeldMutex {
public:
    void lock() KELD_ANNOTATE(acquire_capability()) { mMutex.lock(); }
    void unlock() KELD_ANNOTATE(release_capability()) { mMutex.unlock(); }

private:
    friend class KeldLock;
    std::mutex mMutex;
};

class KELD_ANNOTATE(scoped_lockable) KeldLock {
public:
    explicit KeldLock(KeldMutex &mutex) KELD_ANNOTATE(acquire_capability(mutex)) : mLock(mutex.mMutex) {}
    ~KeldLock() KELD_ANNOTATE(release_capability()) {}
    KeldLock(const KeldLock &) = delete;
    KeldLock &operator=(const KeldLock &) = delete;

    // For waiting on a condition; held again when the wait returns.
    std::unique_lock<std::mutex> &Waitable() { return mLock; }

private:
    std::unique_lock<std::mutex> mLock;
};

#endif
