#include "avwatch/history/database.h"

#include "avcore/base/monotonic_clock.h"

#include <unistd.h>

namespace avwatch {
namespace {

// As a URI: a file that nobody writes is read without the files that readers share.
std::string immutable_name(const std::string &path) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '?' || c == '#' || c == '%') {
            uri += '%';
            uri += digits[byte >> 4];
            uri += digits[byte & 15];
        } else {
            uri += c;
        }
    }
    return uri + "?immutable=1";
}

} // namespace

statement::statement(database &owner, const std::string &sql) : owner_(owner) {
    sqlite3_stmt *raw = nullptr;
    const int code = sqlite3_prepare_v3(owner.raw_.get(), sql.c_str(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
    raw_.reset(raw);
    check(code);
}

statement &statement::bind(int index, int64_t value) {
    check(sqlite3_bind_int64(raw_.get(), index + 1, value));
    return *this;
}

statement &statement::bind(int index, std::string_view value) {
    check(sqlite3_bind_text(raw_.get(), index + 1, value.data(), static_cast<int>(value.size()),
                            SQLITE_STATIC));
    return *this;
}

bool statement::step() {
    const int code = sqlite3_step(raw_.get());
    if (code == SQLITE_ROW)
        return true;
    reset();
    if (code != SQLITE_DONE)
        owner_.fail(code);
    return false;
}

void statement::run() {
    while (step()) {
    }
}

void statement::reset() {
    sqlite3_reset(raw_.get()); // repeats the error of the last step
}

int64_t statement::number(int column) const {
    return sqlite3_column_int64(raw_.get(), column);
}

uint64_t statement::count(int column) const {
    const int64_t value = number(column);
    return value > 0 ? static_cast<uint64_t>(value) : 0;
}

std::string statement::text(int column) const {
    const void *bytes = sqlite3_column_text(raw_.get(), column);
    const auto size = static_cast<size_t>(sqlite3_column_bytes(raw_.get(), column));
    return bytes != nullptr ? std::string(static_cast<const char *>(bytes), size) : std::string();
}

void statement::check(int code) {
    if (code != SQLITE_OK)
        owner_.fail(code);
}

database::database(std::string path, access wanted, int patience_ms) : path_(std::move(path)) {
    if (wanted != access::read_only) {
        const int made = wanted == access::create ? SQLITE_OPEN_CREATE : 0;
        open(path_, SQLITE_OPEN_READWRITE | made, patience_ms);
        return;
    }
    open(path_, SQLITE_OPEN_READONLY, patience_ms);
    try {
        number("SELECT count(*) FROM sqlite_schema");
    } catch (const database_error &error) {
        const bool is_written = ::access((path_ + "-wal").c_str(), F_OK) == 0;
        if (error.code != SQLITE_CANTOPEN || is_written)
            throw;
        open(immutable_name(path_), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, patience_ms);
    }
}

void database::open(const std::string &name, int flags, int patience_ms) {
    sqlite3 *raw = nullptr;
    const int code = sqlite3_open_v2(name.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    raw_.reset(raw);
    if (code != SQLITE_OK)
        fail(code);
    sqlite3_busy_timeout(raw, patience_ms);
}

void database::run(const std::string &sql) {
    const int code = sqlite3_exec(raw_.get(), sql.c_str(), nullptr, nullptr, nullptr);
    if (code != SQLITE_OK)
        fail(code);
}

int64_t database::number(const std::string &sql) {
    statement asked(*this, sql);
    return asked.step() ? asked.number(0) : 0;
}

void database::define(const char *name, int values,
                      void (*function)(sqlite3_context *, int, sqlite3_value **)) {
    const int code =
        sqlite3_create_function_v2(raw_.get(), name, values, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                   nullptr, function, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK)
        fail(code);
}

void database::give_up_after(int64_t ms) {
    constexpr int instructions = 10'000; // of SQLite's, between two looks at the clock
    deadline_ms_ = std::make_unique<int64_t>(avcore::monotonic_ms() + ms);
    const auto is_over = [](void *deadline_ms) {
        return avcore::monotonic_ms() > *static_cast<const int64_t *>(deadline_ms) ? 1 : 0;
    };
    sqlite3_progress_handler(raw_.get(), instructions, is_over, deadline_ms_.get());
}

void database::leave_untouched() {
    sqlite3_db_config(raw_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

void database::fail(int code) const {
    const char *said = raw_ ? sqlite3_errmsg(raw_.get()) : sqlite3_errstr(code);
    throw database_error(code & 0xFF, path_ + ": " + said);
}

transaction::transaction(database &owner) : owner_(owner) {
    owner.run("BEGIN IMMEDIATE");
}

transaction::~transaction() {
    // Some errors have ended it.
    try {
        if (owner_.in_transaction())
            owner_.run("ROLLBACK");
    } catch (const database_error &) {
        // What isn't committed isn't there for the next one to open the file.
        return;
    }
}

void transaction::commit() {
    owner_.run("COMMIT");
}

} // namespace avwatch
