// What a person or a script sees: messages, the progress line, tables, JSON documents.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qrtln {

// A line on standard error, above the progress line.
void print_message(const std::string& line);

// Each as a message "warning: TEXT"; the texts need not be printable.
void print_warnings(const std::vector<std::string>& warnings);

// "qrtln: MESSAGE", and the hint on a line of its own.
void print_error(const std::string& message, const std::string& hint);

// The text on standard output. Throws ClientError(failed) when it cannot be written.
void print_output(const std::string& text);

// One JSON document on standard output, likewise.
void print_json(const nlohmann::json& document);

// A line on the terminal that is rewritten in place; nothing at all when standard error is none.
class Progress {
  public:
    explicit Progress(std::uint64_t databases);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void next_database() { ++m_database; }
    void add_bytes(std::uint64_t bytes);
    // Takes the line away, for a message.
    static void clear();

  private:
    void draw();
    bool m_terminal;
    std::uint64_t m_databases;
    std::uint64_t m_database = 0;
    std::uint64_t m_bytes = 0;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_last_drawn;
};

// Columns as wide as their widest cell. Right-aligned where the heading ends with a blank.
class Table {
  public:
    explicit Table(std::vector<std::string> headings);
    void add(std::vector<std::string> row);
    std::string text() const;

  private:
    std::vector<std::vector<std::string>> m_rows;
    std::vector<bool> m_right;
};

} // namespace qrtln
