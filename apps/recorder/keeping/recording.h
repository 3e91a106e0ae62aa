// The recording: one SQLite file, what its tables mean, and how it is opened.
//
// One recorder writes it at a time, which a lock beside it sees to; questions read it meanwhile. Times are
// the daemon's, in microseconds since the epoch. The key of an observation and of an event is the daemon's
// run and the number that it had in it.
#ifndef RECORDER_RECORDING_H
#define RECORDER_RECORDING_H

#include "database.h"

#include <kltlibs/uniquefd.h>

inline constexpr std::int64_t kRecordingVersion = 1;

inline constexpr int kRunShift = 40; // numbers of one run
inline constexpr std::int64_t KeyOf(std::int64_t run, std::uint64_t number)
{
    return run << kRunShift | static_cast<std::int64_t>(number);
}
inline constexpr std::int64_t RunOf(std::int64_t key) { return key >> kRunShift; }
inline constexpr std::int64_t NumberOf(std::int64_t key) { return key & ((1LL << kRunShift) - 1); }

inline constexpr std::int64_t kMinute = 60'000'000; // microseconds
inline constexpr std::int64_t kEventLimitPerMinute = 1000;

// What is summed up for each minute: of an observation or event the minute in which it came or was made.
enum class Sum : std::int64_t {
    Observations = 1,
    Nobody = 2, // observations that no agent wanted
    Handed = 3, // to an agent
    Fate = 4,   // an agent's; code: JournalFate
    Events = 5,
    Delivery = 6, // for good; code: JournalDelivery
    Refused = 7,  // by a channel, as malformed
    Missing = 8,  // observations that the recorder did not hear of, in the minute in which that was known
};
inline constexpr const char *kEverySum = "(1, 2, 3, 4, 5, 6, 7, 8)";

// What the noise of a minute is counted by.
enum class Noise : std::int64_t { Id = 1, Object = 2, EventType = 3, EventObject = 4 };
inline constexpr const char *kEveryNoise = "(1, 2, 3, 4)";

// What happened to the recording and around it, as rows of the table notice.
namespace NoticeKind {
inline constexpr std::string_view kReceiver = "receiver"; // it was away between time and until
inline constexpr std::string_view kLost = "lost";         // observations that stood in a pipe
inline constexpr std::string_view kRefused = "refused";   // by a channel
inline constexpr std::string_view kLimit = "limit";       // what was oldest went
inline constexpr std::string_view kAside = "aside";       // an open problem was put aside
} // namespace NoticeKind

// --file, else KELD_RECORDING, else the recorder's own place.
std::string RecordingFile(const std::string &named);

// For one recorder: makes what is not there. Throws Failure when file is something else, is of a newer
// version, cannot be written, or has a recorder already.
class Recording {
public:
    explicit Recording(const std::string &file);

private:
    UniqueFd mLock; // taken first

public:
    Database database;
};

// To ask; to write too, for what a question records. Throws Failure when there is no recording.
Database OpenRecording(const std::string &file, bool toWrite = false);

// The daemon's run that was listened to last; 0 without one.
std::int64_t LastRun(Database &database);

// Whether a recorder keeps it at this moment.
bool IsBeingRecorded(const std::string &file);

#endif
