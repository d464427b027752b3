// What a person or a script sees: messages, the progress line, tables, JSON documents.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qrtln {

// How a run tells how far it is, on standard error.
enum class ProgressStyle {
    automatic, // a line on a terminal that is rewritten in place; elsewhere a line a minute
    always,    // the former in any case
    lines,     // the latter
    never,
};

// What the options of every command say. Takes SIGUSR1 as the wish to be told the progress at once.
// Where standard error leads into the journal, messages have its priorities before them.
void configure_output(ProgressStyle progress, bool quiet);

// A line on standard error, above the progress line. What is quiet tells only what begins with a
// word for something wrong: "warning: ", "failed: ", "damaged: " and the like.
void print_message(const std::string& line);

// Each as a message "warning: TEXT"; the texts need not be printable.
void print_warnings(const std::vector<std::string>& warnings);

// "qrtln: MESSAGE", and the hint on a line of its own.
void print_error(const std::string& message, const std::string& hint);

// The text on standard output. Throws ClientError(failed) when it cannot be written.
void print_output(const std::string& text);

// Likewise what a command did, rather than what it was asked for: nothing of a run that is quiet
// and complete.
void print_report(const std::string& text, int exit_code);

// What a command found or did, as one line of JSON on standard output, likewise: "schema" and
// "message_type": "summary" are added, members with nothing in them ("", "-", null) left out.
void print_json(nlohmann::json document);

// In its place where a command failed: "exit_error". Texts need not be printable.
void print_json_error(int code, const std::string& message, const std::string& hint);

// How far a run is; one at a time.
class Progress {
  public:
    explicit Progress(std::uint64_t databases);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void next_database();
    void add_bytes(std::uint64_t bytes);
    // Takes the line away, for a message.
    static void clear();
    // Tells it when it is time to; for whoever waits.
    static void tick();

  private:
    std::string text(std::chrono::steady_clock::time_point now) const;
    void tell();
    bool m_redraws;
    bool m_tells;
    std::uint64_t m_databases;
    std::uint64_t m_database = 0;
    std::uint64_t m_bytes = 0;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_last_told;
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
