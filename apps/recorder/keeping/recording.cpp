#include "recording.h"

#include "failure.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

constexpr std::int64_t kApplication = 0x4B454C52; // "KELR"

// A text occurs once, in name: rows and sums carry its number.
constexpr const char *kSchema = R"SQL(
CREATE TABLE run(run INTEGER PRIMARY KEY, identity TEXT UNIQUE, version TEXT, since INTEGER);
CREATE TABLE agent(run INTEGER, number INTEGER, name INTEGER, PRIMARY KEY(run, number)) WITHOUT ROWID;
CREATE TABLE name(name INTEGER PRIMARY KEY, text TEXT NOT NULL UNIQUE);

-- fates: a newline, agent, count, code and text for each agent that got it; code 0 as long as it has none.
-- events: the numbers of those that it led to. argument: which one is the object, from 0.
-- origin: run, agent and count, of what was gathered: what becomes of it later is told by these.
CREATE TABLE observation(key INTEGER PRIMARY KEY, time INTEGER, id INTEGER, object INTEGER, argument INTEGER,
    channel INTEGER, record BLOB, fates TEXT, events TEXT, lost INTEGER, origin INTEGER);
CREATE INDEX observationTime ON observation(time);
CREATE INDEX observationId ON observation(id, time);
CREATE INDEX observationObject ON observation(object, time) WHERE object IS NOT NULL;
CREATE INDEX observationLost ON observation(time) WHERE lost = 1;
CREATE INDEX observationOrigin ON observation(origin) WHERE origin IS NOT NULL;
CREATE TABLE outcome(observation INTEGER, time INTEGER, outcome INTEGER, text TEXT);
CREATE INDEX outcomeObservation ON outcome(observation);
CREATE INDEX outcomeTime ON outcome(time);

-- causes: the numbers of the observations that it came from, as a JSON array; unnamed: how many more.
CREATE TABLE event(key INTEGER PRIMARY KEY, time INTEGER, type INTEGER, object INTEGER, argument INTEGER,
    record BLOB, causes TEXT, unnamed INTEGER, delivery INTEGER, tries INTEGER, delivered INTEGER);
CREATE INDEX eventTime ON event(time);
CREATE INDEX eventType ON event(type, time);
CREATE INDEX eventObject ON event(object, time) WHERE object IS NOT NULL;
CREATE INDEX eventUndelivered ON event(time) WHERE delivery IS NOT 1;

-- pairing: the values on which its clear is matched. aside: when somebody put it aside.
CREATE TABLE problem(problem INTEGER PRIMARY KEY AUTOINCREMENT, type INTEGER, object TEXT, pairing TEXT,
    clearable INTEGER, first INTEGER, last INTEGER, firstTime INTEGER, lastTime INTEGER, times INTEGER,
    aside INTEGER, UNIQUE(type, object, pairing));

-- While a recorder listened without a gap. before: how many observations there were before the first that
-- it heard; null when it has heard none. last: the number of the last one. ended: CoverageEnd. run: 0 while
-- there was no daemon to listen to. What lies between two rows is a gap.
CREATE TABLE coverage(coverage INTEGER PRIMARY KEY, run INTEGER, time INTEGER, until INTEGER, before INTEGER,
    last INTEGER, ended INTEGER);
CREATE TABLE notice(notice INTEGER PRIMARY KEY, time INTEGER, until INTEGER, kind TEXT, text TEXT,
    count INTEGER);
CREATE INDEX noticeTime ON notice(time);
-- change: 0 it was there when the recorder started, 1 set, 2 removed.
CREATE TABLE inventory(time INTEGER, path TEXT, value TEXT, change INTEGER);
CREATE INDEX inventoryTime ON inventory(time);

-- What a question adds up over a month stands side by side.
CREATE TABLE sum(minute INTEGER, kind INTEGER, agent INTEGER, code INTEGER, count INTEGER,
    PRIMARY KEY(kind, minute, agent, code)) WITHOUT ROWID;
CREATE TABLE noise(minute INTEGER, kind INTEGER, name INTEGER, count INTEGER, limited INTEGER,
    PRIMARY KEY(kind, minute, name)) WITHOUT ROWID;
CREATE INDEX noiseName ON noise(name, kind, minute, count);
CREATE TABLE kept(since INTEGER); -- what is older has gone
)SQL";

[[noreturn]] void Refuse(const std::string &file, const std::string &why)
{
    throw Failure(kExitFailed, fmt::format("{}: {}", file, why));
}

std::string LockFile(const std::string &file) { return file + ".lock"; }

// Throws Failure unless it is a recording that this program understands.
void CheckKind(Database &database, const std::string &file)
{
    if (database.Number("PRAGMA application_id") != kApplication)
        Refuse(file, "a database, but no recording");
    std::int64_t version = database.Number("PRAGMA user_version");
    if (version > kRecordingVersion)
        Refuse(file,
               fmt::format("a recording of version {}, and this program knows version {}: use the newer "
                           "one, or name another file",
                           version, kRecordingVersion));
}

// What SQLite says, with what it means for a recording.
[[noreturn]] void RefuseDatabase(const std::string &file, const DatabaseError &error)
{
    if (error.code == SQLITE_NOTADB)
        Refuse(file, "no recording, but a file of another kind; it stays as it is");
    Refuse(file, error.what());
}

UniqueFd Lock(const std::string &file)
{
    UniqueFd lock(open(LockFile(file).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
    if (!lock) Refuse(LockFile(file), std::strerror(errno));
    if (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) Refuse(file, "another recorder keeps it");
    return lock;
}

Database Make(const std::string &file)
try {
    umask(0027);
    Database database(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (database.Number("SELECT count(*) FROM sqlite_schema") != 0) CheckKind(database, file);
    database.Run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -65536;"
                 "PRAGMA journal_size_limit = 67108864; PRAGMA wal_autocheckpoint = 2000;");
    // The write-ahead log stays when the last connection closes: whoever may only read needs it.
    int stay = 1;
    sqlite3_file_control(database.Get(), "main", SQLITE_FCNTL_PERSIST_WAL, &stay);
    if (database.Number("PRAGMA user_version") == 0) {
        Transaction transaction(&database);
        database.Run(kSchema);
        database.Run(fmt::format("PRAGMA application_id = {}; PRAGMA user_version = {};", kApplication,
                                 kRecordingVersion));
        transaction.Commit();
    }
    return database;
} catch (const DatabaseError &error) {
    RefuseDatabase(file, error);
}

} // namespace

std::string RecordingFile(const std::string &named)
{
    if (!named.empty()) return named;
    const char *variable = std::getenv("KELD_RECORDING");
    return variable != nullptr && *variable != '\0' ? variable : "/var/lib/keld-record/recording.db";
}

Recording::Recording(const std::string &file) : mLock(Lock(file)), database(Make(file)) {}

Database OpenRecording(const std::string &file, bool toWrite)
try {
    if (std::error_code error; !std::filesystem::exists(file, error))
        Refuse(file,
               error ? error.message()
                     : "no recording; \"keladm record\" makes one, --file or KELD_RECORDING names another");
    Database database(file, toWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY);
    CheckKind(database, file);
    database.Run("PRAGMA cache_size = -65536; PRAGMA mmap_size = 1073741824");
    return database;
} catch (const DatabaseError &error) {
    RefuseDatabase(file, error);
}

bool IsBeingRecorded(const std::string &file)
{
    UniqueFd lock(open(LockFile(file).c_str(), O_RDONLY | O_CLOEXEC));
    return lock && flock(lock.Get(), LOCK_SH | LOCK_NB) != 0;
}

std::int64_t LastRun(Database &database)
{
    return database.Number("SELECT run FROM coverage WHERE run > 0 ORDER BY coverage DESC LIMIT 1");
}
