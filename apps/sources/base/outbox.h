// Observations on their way to the daemon, which may be away or busy.
//
// What cannot be sent waits, in its order, within fixed bounds. When they are reached the oldest go, and
// the daemon is told of the gap before it gets what came behind it.
#ifndef SOURCES_OUTBOX_H
#define SOURCES_OUTBOX_H

#include "eventLoop.h"
#include "row.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

struct KelProducer;

// Event loop's thread only. Never waits.
class Outbox {
public:
    static constexpr std::size_t kBytesMax = 1024 * 1024; // of records that wait
    static const Row kGap;

    explicit Outbox(EventLoop &loop);
    ~Outbox(); // waits until the daemon has read what was sent, 5 seconds at most
    Outbox(const Outbox &) = delete;
    Outbox &operator=(const Outbox &) = delete;

    void Add(const Row &row, const std::vector<Value> &values);

private:
    void Keep(std::string record);
    void Flush();
    bool Connect();
    void Disconnect();
    void TellGap();
    bool HasRoom() const; // the daemon takes a batch without waiting

    std::deque<std::string> mWaiting;
    std::size_t mWaitingBytes = 0;
    std::uint64_t mLost = 0; // since the last gap that was told
    KelProducer *mProducer = nullptr;
    EventLoop &mLoop;
    EventLoop::WatchPtr mWatch; // of the producer's descriptor
    EventLoop::WatchPtr mRetry;
};

#endif
