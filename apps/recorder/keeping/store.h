// Writes batches into the recording, and keeps it within its limits.
#ifndef RECORDER_STORE_H
#define RECORDER_STORE_H

#include "batch.h"

#include <memory>
#include <unordered_map>

struct StoreLimits {
    std::uint64_t bytesMax = 2ULL << 30;
    std::uint64_t ageMax = 30ULL * 24 * 3600 * 1'000'000; // microseconds
};

// What an event in the database is counted by.
struct EventNames {
    std::uint64_t time = 0;
    std::int64_t type = 0;
    std::optional<std::int64_t> object;
};

class Store {
public:
    Store(Recording *recording, std::string file, StoreLimits limits);

    // The number of a text, which is written with the next batch.
    std::int64_t NameOf(std::string_view text);

    std::optional<EventNames> NamesOfEvent(std::int64_t key);
    std::int64_t KeyOfOrigin(std::int64_t origin); // 0 when no observation has it

    // Writes all that is in the batch, or nothing of it. When the disk is full the oldest goes, and it is
    // tried again; now is the daemon's time. Throws DatabaseError.
    void Write(Batch *batch, std::uint64_t now);

    // Deletes what is over the limits, the oldest first, a portion a call. What belongs to a problem that
    // is open stays. True when there is more to delete.
    bool Trim(std::uint64_t now);

    Database &Data() { return mRecording->database; }

private:
    struct Statements;

    void WriteOnce(const Batch &batch);
    void WriteProblem(const ProblemStep &step);
    void DeleteBefore(std::int64_t time);
    std::optional<std::int64_t> TimeOfRow(std::size_t rows);
    std::uint64_t BytesUsed();
    void MakeReserve();
    void Checkpoint();
    bool DiskIsShort();
    std::int64_t RoomWanted();
    void MakeRoom(std::uint64_t now);
    void SayFull(std::uint64_t now);

    Recording *mRecording;
    std::string mFile;
    StoreLimits mLimits;
    std::unordered_map<std::string, std::int64_t> mNames;
    std::vector<std::pair<std::int64_t, std::string>> mNewNames; // not written yet
    std::int64_t mLastName = 0;
    std::size_t mPortion = 2000; // rows to delete at once
    std::shared_ptr<Statements> mStatements;
};

#endif
