// A thin C++ face of SQLite: connections and statements that close themselves, and errors as
// StatusError.
#pragma once

#include "notes_simulator/base/byte_codec.h"

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace notes_sim {

class Connection;

/// One prepared statement. Parameters are numbered from 1, columns from 0, as in SQLite.
class Statement {
  public:
    Statement(Connection& connection, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int parameter, std::int64_t value);
    Statement& bind(int parameter, std::span<const std::uint8_t> bytes);
    Statement& bindText(int parameter, std::string_view text);

    /// Steps to the next row; false at the end. Throws StatusError.
    bool step();
    /// Runs to the end and makes the statement ready for other parameters.
    void run();
    void reset();

    std::int64_t integer(int column);
    Bytes blob(int column);
    std::string text(int column);
    Id16 id16(int column);

  private:
    Connection& m_connection;
    sqlite3_stmt* m_statement = nullptr;
};

/// One connection to a database file through the recording file-system layer.
class Connection {
  public:
    enum class Mode { kReadOnly, kReadWrite, kCreate };

    /// Opens the file. Throws StatusError: kNoSuchFile, kAccessDenied, kDatabaseDamaged.
    Connection(const std::filesystem::path& file, Mode mode);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Runs statements that return nothing.
    void run(const char* sql);
    std::int64_t integer(const char* sql);
    /// Rolls back a transaction that is still open; never throws.
    void rollBack() noexcept;
    /// The file as the recording layer sees it.
    sqlite3_file* file();
    sqlite3* handle() { return m_database; }
    /// Throws the StatusError that belongs to a result of SQLite.
    [[noreturn]] void fail(int result, const std::string& what);

  private:
    sqlite3* m_database = nullptr;
    std::string m_name;
};

/// A transaction that is rolled back unless commit() ran.
class SqlTransaction {
  public:
    /// begin is "BEGIN IMMEDIATE" or another statement that starts a transaction.
    SqlTransaction(Connection& connection, const char* begin);
    ~SqlTransaction();
    SqlTransaction(const SqlTransaction&) = delete;
    SqlTransaction& operator=(const SqlTransaction&) = delete;

    void commit();

  private:
    Connection& m_connection;
    bool m_open = true;
};

} // namespace notes_sim
