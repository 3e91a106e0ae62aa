#include "keldStore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <malloc.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t kChunkBytes = 32 << 10;
constexpr std::size_t kManyChunks = 64; // so many were a burst: behind it their memory is given back
using Length = std::uint32_t;           // what stands before an entry

} // namespace

KeldStore::KeldStore(std::size_t recentBytes, std::size_t waitingBytes)
    : mRecentBytesMax(recentBytes), mWaitingBytesMax(waitingBytes)
{
}

bool KeldStore::Append(std::string_view entry)
{
    const std::size_t needed = sizeof(Length) + entry.size();
    bool missed = false;
    if (mChunks.empty() || mChunks.back().size - (mEnd.at - mChunks.back().first.at) < needed) {
        AddChunk(std::max(needed, kChunkBytes));
        DropUnwanted();
        while (mRecent.at - mChunks.front().first.at > mWaitingBytesMax)
            missed |= DropFront();
    }
    Chunk &chunk = mChunks.back();
    char *to = chunk.bytes.get() + (mEnd.at - chunk.first.at);
    const auto length = static_cast<Length>(entry.size());
    std::memcpy(to, &length, sizeof length);
    std::memcpy(to + sizeof length, entry.data(), entry.size());
    mEnd = {mEnd.at + needed, mEnd.number + 1};
    chunk.end = mEnd.at;
    ++chunk.entries;
    for (mRecentBytes += entry.size(); mRecentBytes > mRecentBytesMax; ++mRecent.number) {
        const std::size_t bytes = EntryAt(mRecent.at).size();
        mRecentBytes -= bytes;
        mRecent.at += sizeof(Length) + bytes;
    }
    return missed;
}

void KeldStore::AddChunk(std::size_t bytes)
{
    Chunk chunk{.first = mEnd, .end = mEnd.at, .size = bytes, .bytes = nullptr};
    chunk.bytes = std::make_unique_for_overwrite<char[]>(bytes);
    mChunks.push_back(std::move(chunk));
}

std::string_view KeldStore::EntryAt(std::uint64_t at) const
{
    auto behind = mChunks.begin();
    if (at >= behind->end)
        behind = std::upper_bound(behind, mChunks.end(), at, [](std::uint64_t place, const Chunk &chunk) {
            return place < chunk.end;
        });
    const char *from = behind->bytes.get() + (at - behind->first.at);
    Length length;
    std::memcpy(&length, from, sizeof length);
    return {from + sizeof length, length};
}

// Drops the oldest chunk. True when a reader still wanted some of it, and so has missed that.
bool KeldStore::DropFront()
{
    const Place next{mChunks.front().end, mChunks.front().first.number + mChunks.front().entries};
    mChunks.pop_front();
    bool missed = false;
    for (Reader *reader : mReaders) {
        if (reader->mNext.at >= next.at) continue;
        reader->mMissed += next.number - reader->mNext.number;
        reader->mNext = next;
        missed = true;
    }
    return missed;
}

void KeldStore::DropUnwanted()
{
    std::uint64_t wanted = mRecent.at;
    for (const Reader *reader : mReaders)
        wanted = std::min(wanted, reader->mNext.at);
    mMostChunks = std::max(mMostChunks, mChunks.size());
    // The last one is written into.
    while (mChunks.size() > 1 && mChunks.front().end <= wanted)
        mChunks.pop_front();
    if (mMostChunks <= kManyChunks || mChunks.size() > kManyChunks / 4) return;
    mMostChunks = mChunks.size();
    malloc_trim(0); // freed chunks lie between others, where the C library would keep them for ever
}

KeldStore::Reader::Reader(KeldStore &store, From from)
    : mStore(store), mNext(from == From::Recent ? store.mRecent : store.mEnd)
{
    store.mReaders.push_back(this);
}

KeldStore::Reader::~Reader()
{
    mStore.mReaders.remove(this);
    mStore.DropUnwanted();
}

void KeldStore::Reader::Read(std::string *text, std::size_t bytesMax, std::uint64_t until)
{
    const Place before = mNext;
    const std::size_t length = text->size();
    try {
        while (mNext.number < until && text->size() < bytesMax) {
            const std::string_view entry = mStore.EntryAt(mNext.at);
            text->append(entry);
            mNext = {mNext.at + sizeof(Length) + entry.size(), mNext.number + 1};
        }
    } catch (const std::bad_alloc &) {
        mNext = before;
        text->resize(length);
        throw;
    }
    mStore.DropUnwanted();
}

int KeldSendAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        else if (errno != EINTR)
            return -1;
    }
    return 0;
}
