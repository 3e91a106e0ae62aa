#include "database.h"

Database::Database(const std::string &file, int flags)
{
    sqlite3 *handle = nullptr;
    int result = sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
    mHandle.reset(handle);
    if (result != SQLITE_OK) Fail();
    sqlite3_extended_result_codes(handle, 0);
    sqlite3_busy_timeout(handle, 5000);
}

void Database::Fail() const
{
    int code = mHandle ? sqlite3_errcode(mHandle.get()) : SQLITE_NOMEM;
    throw DatabaseError(code, mHandle ? sqlite3_errmsg(mHandle.get()) : "out of memory");
}

void Database::Run(const std::string &sql)
{
    if (sqlite3_exec(mHandle.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail();
}

std::int64_t Database::Number(const std::string &sql)
{
    Statement statement(*this, sql);
    return statement.Step() ? statement.Integer(0) : 0;
}

Statement::Statement(const Database &database, std::string_view sql)
{
    sqlite3_stmt *handle = nullptr;
    int result = sqlite3_prepare_v3(database.Get(), sql.data(), static_cast<int>(sql.size()),
                                    SQLITE_PREPARE_PERSISTENT, &handle, nullptr);
    mHandle.reset(handle);
    if (result != SQLITE_OK) database.Fail();
}

bool Statement::Step()
{
    int result = sqlite3_step(mHandle.get());
    if (result == SQLITE_ROW) return true;
    if (result == SQLITE_DONE) return false;
    sqlite3 *database = sqlite3_db_handle(mHandle.get());
    DatabaseError error(sqlite3_errcode(database), sqlite3_errmsg(database));
    sqlite3_reset(mHandle.get());
    throw error;
}

void Statement::Run()
{
    while (Step()) {
    }
    sqlite3_reset(mHandle.get());
}

std::string_view Statement::Text(int column) const
{
    auto bytes = static_cast<const char *>(sqlite3_column_blob(mHandle.get(), column));
    return {bytes, bytes == nullptr ? 0 : static_cast<size_t>(sqlite3_column_bytes(mHandle.get(), column))};
}

void Statement::Bind(int index, std::string_view text)
{
    sqlite3_bind_text64(mHandle.get(), index, text.data() == nullptr ? "" : text.data(), text.size(),
                        SQLITE_STATIC, SQLITE_UTF8);
}

void Statement::Bind(int index, const JournalBytes &bytes)
{
    sqlite3_bind_blob64(mHandle.get(), index, bytes.bytes.data() == nullptr ? "" : bytes.bytes.data(),
                        bytes.bytes.size(), SQLITE_STATIC);
}

Transaction::~Transaction()
{
    // SQLite has rolled back by itself what a full disk or a failed write ended.
    if (mDatabase->InTransaction()) sqlite3_exec(mDatabase->Get(), "ROLLBACK", nullptr, nullptr, nullptr);
}
