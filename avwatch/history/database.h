// SQLite with owners, and errors as exceptions. One connection is one thread's.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace avwatch {

// The text names the file.
struct database_error : std::runtime_error {
    database_error(int primary_code, const std::string &text)
        : std::runtime_error(text), code(primary_code) {}
    int code; // SQLite's, primary
    bool is_locked() const { return code == SQLITE_BUSY || code == SQLITE_LOCKED; }
};

class database;

// Prepared once, run often. Parameters and columns count from 0.
class statement {
public:
    statement(database &owner, const std::string &sql);

    statement &bind(int index, int64_t value);
    statement &bind(int index, uint64_t value) { return bind(index, static_cast<int64_t>(value)); }
    // `value` has to stay until the statement was run.
    statement &bind(int index, std::string_view value);

    // True with a row. After the last one, and after an error, it is ready to be run again.
    bool step();
    void run(); // to its end, without rows
    void reset();

    int64_t number(int column) const;
    uint64_t count(int column) const; // of a column that holds none below 0
    std::string text(int column) const;

private:
    void check(int code);

    struct finalizer {
        void operator()(sqlite3_stmt *raw) const { sqlite3_finalize(raw); }
    };
    database &owner_;
    std::unique_ptr<sqlite3_stmt, finalizer> raw_;
};

class database {
public:
    enum class access {
        read_only, // works also in a folder where nothing may be made, when nobody writes
        read_write,
        create
    };
    // How long a call waits for others' locks.
    static constexpr int PATIENCE_MS = 5'000;
    // Throws database_error.
    database(std::string path, access wanted, int patience_ms = PATIENCE_MS);

    void run(const std::string &sql);
    int64_t number(const std::string &sql); // the first row's first column; 0 without a row
    int changes() const { return sqlite3_changes(raw_.get()); }
    bool in_transaction() const { return sqlite3_get_autocommit(raw_.get()) == 0; }
    const std::string &path() const { return path_; }
    // A function for its SQL, which throws nothing and gives the same for the same values.
    void define(const char *name, int values,
                void (*function)(sqlite3_context *, int, sqlite3_value **));
    // From now on: what takes longer fails with SQLITE_INTERRUPT.
    void give_up_after(int64_t ms);
    // Also when it is closed, which would otherwise move what is in its WAL.
    void leave_untouched();
    [[noreturn]] void fail(int code) const;

private:
    friend class statement;

    void open(const std::string &name, int flags, int patience_ms);

    struct closer {
        void operator()(sqlite3 *raw) const { sqlite3_close_v2(raw); }
    };
    std::string path_;
    std::unique_ptr<int64_t> deadline_ms_; // of who is called while it works
    std::unique_ptr<sqlite3, closer> raw_;
};

// Takes the lock for writing at once, so that what is read in it stays true. Undone unless `commit`
// was called.
class transaction {
public:
    explicit transaction(database &owner);
    ~transaction();
    transaction(const transaction &) = delete;
    transaction &operator=(const transaction &) = delete;
    void commit();

private:
    database &owner_;
};

} // namespace avwatch
