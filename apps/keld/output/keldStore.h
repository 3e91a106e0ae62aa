// Entries of bytes, oldest first, each kept once for any number of readers, each of which goes through them
// at its own pace.
//
// The most recent ones are always kept. Those before them stay for as long as a reader still wants them,
// but within a bound: what is too much is dropped from the front, and a reader that wanted it has missed
// it.
//
// Not locked: the owner's mutex guards a store and all its readers.
#ifndef KELD_STORE_H
#define KELD_STORE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <string_view>

class KeldStore {
    // An entry's place: how many bytes of entries came before it since the store was made, and how many
    // entries.
    struct Place {
        std::uint64_t at = 0;
        std::uint64_t number = 0;
    };

public:
    // A reader's place in a store, which outlives it.
    class Reader {
    public:
        enum class From { Recent, Now }; // the most recent entries first, or only what comes

        Reader(KeldStore &store, From from);
        ~Reader();
        Reader(const Reader &) = delete;
        Reader &operator=(const Reader &) = delete;

        // Appends entries to text, up to number until at most, and until it holds bytesMax or more. Throws
        // std::bad_alloc, having read nothing.
        void Read(std::string *text, std::size_t bytesMax, std::uint64_t until);

        std::uint64_t Next() const { return mNext.number; } // the number of the entry to be read next
        std::uint64_t Missed() const { return mMissed; }    // how many were dropped before it had them

    private:
        friend class KeldStore;
        KeldStore &mStore;
        Place mNext;
        std::uint64_t mMissed = 0;
    };

    // recentBytes: of entries that are always kept, the newest. waitingBytes: what the others may take in
    // all.
    KeldStore(std::size_t recentBytes, std::size_t waitingBytes);

    // Adds entries under the next numbers, given one behind the other; they are read or missed together.
    // True when a reader has missed something for them. Throws std::bad_alloc, with nothing changed.
    bool Append(std::string_view entries, std::uint64_t count = 1);

    std::uint64_t End() const { return mEnd.number; } // the number of the next entry, from 0 on

private:
    // What was added at once.
    struct Piece {
        std::string_view entries;
        std::uint64_t count = 0;
    };
    // Pieces one behind the other, each behind its header; none lies in two chunks.
    struct Chunk {
        Place first;
        std::uint64_t end = 0; // where the next chunk begins
        std::uint64_t entries = 0;
        std::size_t size = 0;
        std::unique_ptr<char[]> bytes;
    };

    Piece PieceAt(std::uint64_t at) const;
    static Place Behind(Place place, const Piece &piece);
    void AddChunk(std::size_t bytes);
    bool DropFront();
    void DropUnwanted();

    std::size_t mRecentBytesMax, mWaitingBytesMax;
    std::deque<Chunk> mChunks;
    std::size_t mMostChunks = 0; // since memory was last given back
    Place mEnd, mRecent;
    std::size_t mRecentBytes = 0; // of the entries from mRecent on
    std::list<Reader *> mReaders;
};

// Sends all of it to a client, for as long as it takes: 0, or -1 with errno. Any thread.
int KeldSendAll(int descriptor, std::string_view bytes);

#endif
