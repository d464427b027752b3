#include "notes_simulator/storage/sql.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/storage/recording_vfs.h"

namespace notes_sim {

namespace {

// A writer at full rate may keep a reader waiting; ten seconds are far beyond any transaction.
constexpr int kBusyMilliseconds = 10000;

Status statusOf(int result) {
    switch (result & 0xFF) {
    case SQLITE_CORRUPT:
        return kDatabaseDamaged;
    case SQLITE_NOTADB:
        return kNotADatabase;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return kDatabaseInUse;
    case SQLITE_NOMEM:
        return kOutOfMemory;
    case SQLITE_CANTOPEN:
        return kNoSuchFile;
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_AUTH:
        return kAccessDenied;
    case SQLITE_ERROR:
        // The statements are the simulator's own: a table that they name is missing.
        return kDatabaseDamaged;
    default:
        return kIoError;
    }
}

} // namespace

Statement::Statement(Connection& connection, const char* sql) : m_connection(connection) {
    const int result = sqlite3_prepare_v2(connection.handle(), sql, -1, &m_statement, nullptr);
    if (result != SQLITE_OK) {
        connection.fail(result, "statement");
    }
}

Statement::~Statement() {
    sqlite3_finalize(m_statement);
}

Statement& Statement::bind(int parameter, std::int64_t value) {
    sqlite3_bind_int64(m_statement, parameter, value);
    return *this;
}

Statement& Statement::bind(int parameter, std::span<const std::uint8_t> bytes) {
    // An empty span may have no address, which SQLite would take for NULL.
    const void* data = bytes.empty() ? static_cast<const void*>("") : bytes.data();
    sqlite3_bind_blob64(m_statement, parameter, data, bytes.size(), SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bindText(int parameter, std::string_view text) {
    sqlite3_bind_text64(m_statement, parameter, text.data(), text.size(), SQLITE_TRANSIENT,
                        SQLITE_UTF8);
    return *this;
}

bool Statement::step() {
    const int result = sqlite3_step(m_statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        m_connection.fail(result, "reading or writing");
    }
    return result == SQLITE_ROW;
}

void Statement::run() {
    while (step()) {
    }
    reset();
}

void Statement::reset() {
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
}

std::int64_t Statement::integer(int column) {
    return sqlite3_column_int64(m_statement, column);
}

Bytes Statement::blob(int column) {
    const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(m_statement, column));
    const int length = sqlite3_column_bytes(m_statement, column);
    return data == nullptr ? Bytes() : Bytes(data, data + length);
}

std::string Statement::text(int column) {
    const Bytes bytes = blob(column);
    return {bytes.begin(), bytes.end()};
}

Id16 Statement::id16(int column) {
    Bytes bytes = blob(column);
    bytes.resize(sizeof(Id16)); // a damaged file may hold anything
    return ByteReader(bytes).id16();
}

Connection::Connection(const std::filesystem::path& file, Mode mode) : m_name(file.string()) {
    registerRecordingVfs();
    int flags = SQLITE_OPEN_READONLY;
    if (mode == Mode::kReadWrite) {
        flags = SQLITE_OPEN_READWRITE;
    } else if (mode == Mode::kCreate) {
        flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    }
    const int result = sqlite3_open_v2(m_name.c_str(), &m_database, flags, kRecordingVfsName);
    if (result != SQLITE_OK) {
        sqlite3_close(m_database);
        throw StatusError(statusOf(result), m_name);
    }
    sqlite3_extended_result_codes(m_database, 1);
    sqlite3_busy_timeout(m_database, kBusyMilliseconds);
    try {
        if (mode != Mode::kReadOnly) {
            // Killed processes count here, power cuts do not: nothing is flushed to the disk.
            // The small cache makes a large transaction spill pages before it commits.
            run("PRAGMA synchronous=OFF; PRAGMA journal_mode=TRUNCATE; PRAGMA cache_size=64;");
        }
    } catch (...) {
        sqlite3_close(m_database);
        throw;
    }
}

Connection::~Connection() {
    sqlite3_close(m_database);
}

void Connection::run(const char* sql) {
    const int result = sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        fail(result, "statement");
    }
}

std::int64_t Connection::integer(const char* sql) {
    Statement statement(*this, sql);
    return statement.step() ? statement.integer(0) : 0;
}

void Connection::rollBack() noexcept {
    if (sqlite3_get_autocommit(m_database) == 0) {
        // A rollback that fails is repeated from the journal by the next process that opens it.
        sqlite3_exec(m_database, "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

sqlite3_file* Connection::file() {
    sqlite3_file* result = nullptr;
    const int status = sqlite3_file_control(m_database, "main", SQLITE_FCNTL_FILE_POINTER, &result);
    if (status != SQLITE_OK || result == nullptr) {
        fail(status, "file");
    }
    return result;
}

void Connection::fail(int result, const std::string& what) {
    throw StatusError(statusOf(result), m_name + ": " + what + ": " + sqlite3_errmsg(m_database));
}

SqlTransaction::SqlTransaction(Connection& connection, const char* begin)
    : m_connection(connection) {
    connection.run(begin);
}

SqlTransaction::~SqlTransaction() {
    if (m_open) {
        m_connection.rollBack();
    }
}

void SqlTransaction::commit() {
    m_connection.run("COMMIT");
    m_open = false;
}

} // namespace notes_sim
