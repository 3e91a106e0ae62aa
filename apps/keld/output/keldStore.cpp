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

struct Header { // of a piece
    std::uint32_t length;
    std::uint32_t count;
};

} // namespace

KeldStore::KeldStore(std::size_t recentBytes, std::size_t waitingBytes)
    : mRecentBytesMax(recentBytes), mWaitingBytesMax(waitingBytes)
{
}

bool KeldStore::Append(std::string_view entries, std::uint64_t count)
{
    const std::size_t needed = sizeof(Header) + entries.size();
    bool missed = false;
    if (mChunks.empty() || mChunks.back().size - (mEnd.at - mChunks.back().first.at) < needed) {
        AddChunk(std::max(needed, kChunkBytes));
        DropUnwanted();
        while (mRecent.at - mChunks.front().first.at > mWaitingBytesMax)
            missed |= DropFront();
    }
    Chunk &chunk = mChunks.back();
    char *to = chunk.bytes.get() + (mEnd.at - chunk.first.at);
    const Header header{static_cast<std::uint32_t>(entries.size()), static_cast<std::uint32_t>(count)};
    std::memcpy(to, &header, sizeof header);
    std::memcpy(to + sizeof header, entries.data(), entries.size());
    mEnd = {mEnd.at + needed, mEnd.number + count};
    chunk.end = mEnd.at;
    chunk.entries += count;
    if (entries.size() > mRecentBytesMax) { // none is recent, this one included
        mRecent = mEnd;
        mRecentBytes = 0;
        return missed;
    }
    for (mRecentBytes += entries.size(); mRecentBytes > mRecentBytesMax;) {
        const Piece oldest = PieceAt(mRecent.at);
        mRecentBytes -= oldest.entries.size();
        mRecent = Behind(mRecent, oldest);
    }
    return missed;
}

void KeldStore::AddChunk(std::size_t bytes)
{
    Chunk chunk{.first = mEnd, .end = mEnd.at, .size = bytes, .bytes = nullptr};
    chunk.bytes = std::make_unique_for_overwrite<char[]>(bytes);
    mChunks.push_back(std::move(chunk));
}

KeldStore::Piece KeldStore::PieceAt(std::uint64_t at) const
{
    auto behind = mChunks.begin();
    if (at >= behind->end)
        behind = std::upper_bound(behind, mChunks.end(), at, [](std::uint64_t place, const Chunk &chunk) {
            return place < chunk.end;
        });
    const char *from = behind->bytes.get() + (at - behind->first.at);
    Header header;
    std::memcpy(&header, from, sizeof header);
    return {{from + sizeof header, header.length}, header.count};
}

KeldStore::Place KeldStore::Behind(Place place, const Piece &piece)
{
    return {place.at + sizeof(Header) + piece.entries.size(), place.number + piece.count};
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
            const Piece piece = mStore.PieceAt(mNext.at);
            text->append(piece.entries);
            mNext = Behind(mNext, piece);
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
