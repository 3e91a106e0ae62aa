#include "outbox.h"

#include "kelproducer.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/epoll.h>
#include <utility>

namespace {

// How often a daemon that is away is looked for, while something waits for it.
constexpr std::chrono::seconds kRetryPeriod{10};

// Less than a socket's buffer takes, so that a batch is sent whole or not at all.
constexpr std::size_t kBatchBytesMax = 32 * 1024;

} // namespace

const Row Outbox::kGap{"kel.external.warning", kExternalFormat,
                       "observations were lost because the daemon was away or busy for too long"};

Outbox::Outbox(EventLoop &loop) : mLoop(loop), mRetry(loop.OnTimer([this] { Flush(); })) {}

Outbox::~Outbox()
{
    Flush();
    if (const std::uint64_t lost = mLost + mWaiting.size(); lost != 0)
        fmt::print(stderr, "keld-sources: {} observations did not reach the daemon\n", lost);
    mWatch.reset();
    (void)KelProducer_Close(mProducer);
}

void Outbox::Add(const Row &row, const std::vector<Value> &values)
{
    std::string record = MakeRecord(row, values);
    if (record.empty()) {
        fmt::print(stderr, "keld-sources: {}: the values do not fit its arguments\n", row.id);
        return;
    }
    Keep(std::move(record));
    Flush();
}

void Outbox::Keep(std::string record)
{
    mWaitingBytes += record.size();
    mWaiting.push_back(std::move(record));
    while (mWaitingBytes > kBytesMax) {
        mWaitingBytes -= mWaiting.front().size();
        mWaiting.pop_front();
        ++mLost;
    }
}

void Outbox::Flush()
{
    if (mWaiting.empty()) return;
    if (mProducer == nullptr && !Connect()) return mRetry->Arm(kRetryPeriod);
    while (!mWaiting.empty()) {
        if (!HasRoom()) return mWatch->SetEvents(EPOLLOUT);
        if (mLost != 0) TellGap();
        std::string batch;
        std::size_t count = 0;
        while (count < mWaiting.size() && batch.size() + mWaiting[count].size() <= kBatchBytesMax)
            batch += mWaiting[count++];
        if (KelProducer_Send(mProducer, batch.data(), batch.size()) != 0) {
            Disconnect();
            return mRetry->Arm(kRetryPeriod);
        }
        mWaitingBytes -= batch.size();
        mWaiting.erase(mWaiting.begin(), mWaiting.begin() + static_cast<std::ptrdiff_t>(count));
    }
    mWatch->SetEvents(0);
}

bool Outbox::Connect()
{
    if (KelProducer_Open(KELPRODUCER_USER_CONTEXT, &mProducer) != 0) return false;
    mWatch = mLoop.OnEvents(KelProducer_Fd(mProducer), 0, [this](std::uint32_t events) {
        if ((events & (EPOLLHUP | EPOLLERR)) != 0)
            Disconnect(); // the daemon has gone, or serves eight others
        else
            Flush();
        if (!mWaiting.empty()) mRetry->Arm(kRetryPeriod);
    });
    return true;
}

void Outbox::Disconnect()
{
    mWatch.reset();
    (void)KelProducer_Close(std::exchange(mProducer, nullptr)); // its peer has gone: does not wait
}

bool Outbox::HasRoom() const
{
    pollfd writable{KelProducer_Fd(mProducer), POLLOUT, 0};
    return poll(&writable, 1, 0) == 1; // also when the daemon has gone, which the next send tells
}

void Outbox::TellGap()
{
    const auto text = fmt::format("{} observations were lost while the daemon was away or busy", mLost);
    std::string gap = MakeRecord(kGap, External("keld-sources", text));
    mWaitingBytes += gap.size();
    mWaiting.push_front(std::move(gap));
    mLost = 0;
}
