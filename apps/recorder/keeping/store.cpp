#include "store.h"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr std::size_t kPortionMin = 2000;
// Given up when the disk is full, so that deleting has room: the log of several batches, and more.
constexpr std::uint64_t kReserveBytesMax = 64 << 20, kReserveBytesMin = 1 << 20;
// With less than this on the disk the recording does not grow any more: its log has to have room.
constexpr std::uint64_t kShortBytesMax = 32 << 20;
constexpr std::int64_t kRoomPagesMax = 4096; // for what comes next: a batch and more
constexpr std::size_t kNamesMax = 200'000;   // kept in memory; all of them are in the database

} // namespace

struct Store::Statements {
    explicit Statements(const Database &database)
        : name(database, "INSERT OR IGNORE INTO name VALUES(?, ?)"),
          observation(database, "INSERT INTO observation VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
          event(database, "INSERT INTO event VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
          lateFate(database, "UPDATE observation SET fates = replace(fates, ?, ?), lost = lost OR ?, "
                             "origin = ifnull(?, origin) WHERE key = ?"),
          lateEvent(database, "UPDATE observation SET events = events || ? WHERE key = ?"),
          lateDelivery(database, "UPDATE event SET delivery = ?, tries = ?, delivered = ? WHERE key = ?"),
          outcome(database, "INSERT INTO outcome VALUES(?, ?, ?, ?)"),
          notice(database, "INSERT INTO notice(time, until, kind, text, count) VALUES(?, ?, ?, ?, ?)"),
          inventory(database, "INSERT INTO inventory VALUES(?, ?, ?, ?)"),
          run(database, "INSERT OR REPLACE INTO run VALUES(?, ?, ?, ?)"),
          agent(database, "INSERT OR REPLACE INTO agent VALUES(?, ?, ?)"),
          coverage(database, "INSERT OR REPLACE INTO coverage VALUES(?, ?, ?, ?, ?, ?, ?)"),
          sum(database, "INSERT INTO sum VALUES(?, ?, ?, ?, ?) ON CONFLICT DO UPDATE SET count = count + "
                        "excluded.count"),
          noise(database, "INSERT INTO noise VALUES(?, ?, ?, ?, ?) ON CONFLICT DO UPDATE SET "
                          "count = count + excluded.count, limited = limited + excluded.limited"),
          problem(database,
                  "INSERT INTO problem(type, object, pairing, clearable, first, last, firstTime, lastTime, "
                  "times) VALUES(?1, ?2, ?3, ?4, ?5, ?5, ?6, ?6, 1) ON CONFLICT DO UPDATE SET "
                  "last = excluded.last, lastTime = excluded.lastTime, times = times + 1, aside = NULL"),
          ended(database, "DELETE FROM problem WHERE type = ? AND pairing = ?"),
          endNotice(database, "UPDATE notice SET until = ?, count = ? WHERE kind = ? AND until = 0"),
          findEvent(database, "SELECT time, type, object FROM event WHERE key = ?"),
          findOrigin(database, "SELECT key FROM observation WHERE origin = ?"),
          findName(database, "SELECT name FROM name WHERE text = ?")
    {
    }
    Statement name, observation, event, lateFate, lateEvent, lateDelivery, outcome, notice, inventory, run,
        agent, coverage, sum, noise, problem, ended, endNotice, findEvent, findOrigin, findName;
};

Store::Store(Recording *recording, std::string file, StoreLimits limits)
    : mRecording(recording), mFile(std::move(file)), mLimits(limits),
      mStatements(std::make_shared<Statements>(recording->database))
{
    mLastName = Data().Number("SELECT max(name) FROM name");
    MakeReserve();
}

std::int64_t Store::NameOf(std::string_view text)
{
    std::string key(text);
    if (auto known = mNames.find(key); known != mNames.end()) return known->second;
    if (mNames.size() > kNamesMax && mNewNames.empty()) mNames.clear();
    std::int64_t number = 0;
    Statement &find = mStatements->findName.With(text);
    if (find.Step()) {
        number = find.Integer(0);
    } else {
        number = ++mLastName;
        mNewNames.emplace_back(number, key);
    }
    find.With();
    mNames.emplace(std::move(key), number);
    return number;
}

std::optional<EventNames> Store::NamesOfEvent(std::int64_t key)
{
    Statement &find = mStatements->findEvent.With(key);
    std::optional<EventNames> names;
    if (find.Step()) {
        names = EventNames{find.Unsigned(0), find.Integer(1), std::nullopt};
        if (!find.IsNull(2)) names->object = find.Integer(2);
    }
    find.With();
    return names;
}

std::int64_t Store::KeyOfOrigin(std::int64_t origin)
{
    Statement &find = mStatements->findOrigin.With(origin);
    std::int64_t key = find.Step() ? find.Integer(0) : 0;
    find.With();
    return key;
}

void Store::Write(Batch *batch, std::uint64_t now)
{
    if (DiskIsShort() && Data().Number("PRAGMA freelist_count") < RoomWanted()) MakeRoom(now);
    for (int tries = 1;; tries++) {
        try {
            WriteOnce(*batch);
            break;
        } catch (const DatabaseError &error) {
            if (error.code != SQLITE_FULL || tries > 3) throw;
            unlink((mFile + ".reserve").c_str());
            MakeRoom(now);
            MakeReserve();
        }
    }
    mPortion = std::max(kPortionMin, batch->observations.size() * 2);
    mNewNames.clear();
    *batch = Batch();
}

void Store::WriteOnce(const Batch &batch)
{
    Statements &to = *mStatements;
    Transaction transaction(&Data());
    for (const auto &[number, text] : mNewNames)
        to.name.With(number, std::string_view(text)).Run();
    for (const ObservationRow &row : batch.observations)
        to.observation
            .With(row.key, row.time, row.id, row.object, row.argument, row.channel,
                  JournalBytes{row.record}, std::string_view(row.fates), std::string_view(row.events),
                  row.lost ? 1 : 0, row.origin)
            .Run();
    for (const EventRow &row : batch.events)
        to.event
            .With(row.key, row.time, row.type, row.object, row.argument, JournalBytes{row.record},
                  std::string_view(row.causes), row.unnamed, row.delivery, row.tries, row.delivered)
            .Run();
    for (const LateFate &late : batch.lateFates)
        to.lateFate
            .With(std::string_view(late.was), std::string_view(late.is), late.lost ? 1 : 0, late.origin,
                  late.key)
            .Run();
    for (const LateEvent &late : batch.lateEvents)
        to.lateEvent.With(std::string_view(late.events), late.observation).Run();
    for (const LateDelivery &late : batch.lateDeliveries)
        to.lateDelivery.With(late.delivery, late.tries, late.time, late.key).Run();
    for (const OutcomeRow &row : batch.outcomes)
        to.outcome.With(row.observation, row.time, row.outcome, std::string_view(row.text)).Run();
    for (const ProblemStep &step : batch.problems)
        WriteProblem(step);
    for (const NoticeRow &row : batch.notices) {
        if (row.time == 0)
            to.endNotice.With(row.until, row.count, std::string_view(row.kind)).Run();
        else
            to.notice
                .With(row.time, row.until, std::string_view(row.kind), std::string_view(row.text),
                      row.count)
                .Run();
    }
    for (const InventoryRow &row : batch.inventory)
        to.inventory.With(row.time, std::string_view(row.path), std::string_view(row.value), row.change)
            .Run();
    for (const RunRow &row : batch.runs)
        to.run.With(row.run, std::string_view(row.identity), std::string_view(row.version), row.since)
            .Run();
    for (const AgentRow &row : batch.agents)
        to.agent.With(row.run, row.number, row.name).Run();
    for (const auto &[number, row] : batch.coverage)
        to.coverage.With(number, row.run, row.time, row.until, row.before, row.last, row.ended).Run();
    for (const auto &[key, count] : batch.sums) {
        const auto &[minute, kind, agent, code] = key;
        to.sum.With(minute, kind, agent, code, count).Run();
    }
    for (const auto &[key, noisy] : batch.noise) {
        const auto &[minute, kind, name] = key;
        to.noise.With(minute, kind, name, noisy.count, noisy.limited).Run();
    }
    transaction.Commit();
}

void Store::WriteProblem(const ProblemStep &step)
{
    if (step.ends)
        mStatements->ended.With(step.type, std::string_view(step.pairing)).Run();
    else
        mStatements->problem
            .With(step.type, std::string_view(step.object), std::string_view(step.pairing),
                  step.clearable ? 1 : 0, step.event, step.time)
            .Run();
}

// What a problem that can be ended came from: its first and last event, and their observations.
constexpr const char *kOpenEvents =
    "SELECT first FROM problem WHERE clearable = 1 UNION SELECT last FROM problem WHERE clearable = 1";

bool Store::Trim(std::uint64_t now)
{
    bool full = BytesUsed() > mLimits.bytesMax;
    std::int64_t aged = now > mLimits.ageMax ? static_cast<std::int64_t>(now - mLimits.ageMax) : 0;
    bool old = aged - Data().Number("SELECT since FROM kept") >
               std::min(kMinute, static_cast<std::int64_t>(mLimits.ageMax));
    if (!full && !old) return false;

    // So many rows at once, but no more than age and size ask for.
    auto end = full ? static_cast<std::int64_t>(now) : aged;
    std::int64_t until = std::min(TimeOfRow(mPortion).value_or(end), end);
    DeleteBefore(until + 1);
    return until < end;
}

// The time of the row that comes so many rows after the oldest. Old rows that are kept all the same do not
// count.
std::optional<std::int64_t> Store::TimeOfRow(std::size_t rows)
{
    Statement find(
        Data(), fmt::format("SELECT min(time) FROM (SELECT * FROM (SELECT time FROM observation WHERE "
                            "time >= {0} ORDER BY time LIMIT 1 OFFSET {1}) UNION ALL SELECT * FROM (SELECT "
                            "time FROM event WHERE time >= {0} ORDER BY time LIMIT 1 OFFSET {1}))",
                            Data().Number("SELECT since FROM kept"), rows));
    if (!find.Step() || find.IsNull(0)) return std::nullopt;
    return find.Integer(0);
}

void Store::DeleteBefore(std::int64_t time)
{
    Transaction transaction(&Data());
    auto run = [&](const std::string &sql) { Statement(Data(), sql).With(time).Run(); };
    run("DELETE FROM problem WHERE lastTime < ? AND clearable = 0");
    run(fmt::format(
        "DELETE FROM observation WHERE time < ? AND key NOT IN (SELECT (event.key >> {0} << {0}) + value "
        "FROM event, json_each(event.causes) WHERE event.key IN ({1}))",
        kRunShift, kOpenEvents));
    run(fmt::format("DELETE FROM event WHERE time < ? AND key NOT IN ({})", kOpenEvents));
    run("DELETE FROM outcome WHERE time < ? AND NOT EXISTS (SELECT 1 FROM observation WHERE key = "
        "observation)");
    run("DELETE FROM notice WHERE time < ?1 AND until < ?1 AND until > 0");
    run("DELETE FROM inventory WHERE time < ?");
    run("DELETE FROM coverage WHERE until < ?");
    run(fmt::format("DELETE FROM sum WHERE kind IN {} AND minute < ? / {}", kEverySum, kMinute));
    run(fmt::format("DELETE FROM noise WHERE kind IN {} AND minute < ? / {}", kEveryNoise, kMinute));
    Data().Run("DELETE FROM kept");
    Statement(Data(), "INSERT INTO kept VALUES(?)").With(time).Run();
    transaction.Commit();
}

std::uint64_t Store::BytesUsed()
{
    return static_cast<std::uint64_t>(
        (Data().Number("PRAGMA page_count") - Data().Number("PRAGMA freelist_count")) *
        Data().Number("PRAGMA page_size"));
}

void Store::MakeReserve()
{
    // Not while it would fill the disk again.
    struct statvfs disk {};
    if (statvfs(mFile.c_str(), &disk) != 0) return;
    std::uint64_t bytes = std::min<std::uint64_t>(kReserveBytesMax, disk.f_bavail * disk.f_frsize / 8);
    if (bytes < kReserveBytesMin) return;
    UniqueFd fd(open((mFile + ".reserve").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (fd && posix_fallocate(fd.Get(), 0, static_cast<off_t>(bytes)) != 0 && ftruncate(fd.Get(), 0) != 0)
        return;
}

// Moves the write-ahead log into the database, as far as the disk allows, so that its space is used again.
void Store::Checkpoint()
{
    sqlite3_exec(Data().Get(), "PRAGMA wal_checkpoint(RESTART)", nullptr, nullptr, nullptr);
}

bool Store::DiskIsShort()
{
    struct statvfs disk {};
    return statvfs(mFile.c_str(), &disk) == 0 &&
           disk.f_bavail < std::min<std::uint64_t>(kShortBytesMax / disk.f_frsize, disk.f_blocks / 4);
}

// In pages.
std::int64_t Store::RoomWanted() { return std::min(Data().Number("PRAGMA page_count") / 4, kRoomPagesMax); }

// The log of a deletion needs room, too: few rows at a time, and fewer when even that is too much.
void Store::MakeRoom(std::uint64_t now)
{
    std::int64_t wanted = RoomWanted();
    for (std::size_t rows = kPortionMin; rows > 0 && Data().Number("PRAGMA freelist_count") < wanted;) {
        Checkpoint();
        auto until = TimeOfRow(rows);
        try {
            DeleteBefore(until.value_or(static_cast<std::int64_t>(now)) + 1);
            if (!until) break; // nothing is left
        } catch (const DatabaseError &error) {
            if (error.code != SQLITE_FULL) throw;
            rows /= 4;
        }
    }
    Checkpoint();
    try {
        SayFull(now);
    } catch (const DatabaseError &error) {
        if (error.code != SQLITE_FULL) throw;
    }
}

// One notice as long as it goes on.
void Store::SayFull(std::uint64_t now)
{
    Transaction transaction(&Data());
    Statement(Data(), "UPDATE notice SET until = ?1 WHERE kind = ?2 AND until > ?1 - ?3")
        .With(now, NoticeKind::kLimit, kMinute)
        .Run();
    if (sqlite3_changes(Data().Get()) == 0)
        Statement(Data(), "INSERT INTO notice(time, until, kind, text, count) VALUES(?, ?, ?, ?, NULL)")
            .With(now, now, NoticeKind::kLimit,
                  std::string_view("the disk was full or nearly so: what was oldest went"))
            .Run();
    transaction.Commit();
}
