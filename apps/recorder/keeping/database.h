// SQLite as the recorder and its questions use it: statements are prepared once, errors are exceptions.
//
// A database belongs to one thread. Texts and bytes of a row are good until its statement's next step.
#ifndef RECORDER_DATABASE_H
#define RECORDER_DATABASE_H

#include <concepts>
#include <cstdint>
#include <kltlibs/journalrecord.h>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

struct DatabaseError : std::runtime_error {
    DatabaseError(int resultCode, const std::string &message)
        : std::runtime_error(message), code(resultCode)
    {
    }
    int code; // SQLITE_FULL ...
};

class Database {
public:
    // Opens file with SQLITE_OPEN_* flags. Throws DatabaseError, as everything here does.
    Database(const std::string &file, int flags);

    void Run(const std::string &sql);            // one statement or several, without results
    std::int64_t Number(const std::string &sql); // the first column of the first row; 0 without one
    std::int64_t LastKey() const { return sqlite3_last_insert_rowid(mHandle.get()); }
    bool InTransaction() const { return sqlite3_get_autocommit(mHandle.get()) == 0; }

    sqlite3 *Get() const { return mHandle.get(); }
    [[noreturn]] void Fail() const; // throws what went wrong last

private:
    struct Closer {
        void operator()(sqlite3 *handle) const { sqlite3_close_v2(handle); }
    };
    std::unique_ptr<sqlite3, Closer> mHandle;
};

class Statement {
public:
    Statement(const Database &database, std::string_view sql);

    // Begins anew with these parameters, in their order. Texts and bytes must last until the last Step.
    Statement &With(const auto &...values)
    {
        sqlite3_reset(mHandle.get());
        int index = 0;
        (Bind(++index, values), ...);
        return *this;
    }

    bool Step(); // true when there is a row
    void Run();  // to the end

    std::int64_t Integer(int column) const { return sqlite3_column_int64(mHandle.get(), column); }
    std::uint64_t Unsigned(int column) const { return static_cast<std::uint64_t>(Integer(column)); }
    std::string_view Text(int column) const; // also the bytes of a blob; empty for null
    bool IsNull(int column) const { return sqlite3_column_type(mHandle.get(), column) == SQLITE_NULL; }

private:
    template <class T>
    requires(std::integral<T> || std::is_enum_v<T>) void Bind(int index, T value)
    {
        sqlite3_bind_int64(mHandle.get(), index, static_cast<sqlite3_int64>(value));
    }
    void Bind(int index, std::string_view text);
    void Bind(int index, const JournalBytes &bytes);
    void Bind(int index, std::nullopt_t) { sqlite3_bind_null(mHandle.get(), index); }
    template <class T> void Bind(int index, const std::optional<T> &value)
    {
        if (value)
            Bind(index, *value);
        else
            Bind(index, std::nullopt);
    }

    struct Finalizer {
        void operator()(sqlite3_stmt *handle) const { sqlite3_finalize(handle); }
    };
    std::unique_ptr<sqlite3_stmt, Finalizer> mHandle;
};

// Rolls back unless Commit has been called.
class Transaction {
public:
    explicit Transaction(Database *database) : mDatabase(database) { mDatabase->Run("BEGIN IMMEDIATE"); }
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;

    void Commit() { mDatabase->Run("COMMIT"); }

private:
    Database *mDatabase;
};

#endif
