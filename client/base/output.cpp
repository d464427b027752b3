#include "client/base/output.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/text.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

bool progress_shown = false;

struct OutputSettings {
    ProgressStyle progress = ProgressStyle::automatic;
    bool quiet = false;
    bool journal = false; // standard error leads there
};

OutputSettings& settings() {
    static OutputSettings settings;
    return settings;
}

Progress* current_progress = nullptr;
volatile std::sig_atomic_t progress_wanted = 0;

// As the journal numbers priorities.
enum class Priority { error = 3, warning = 4, notice = 6 };

Priority priority_of(std::string_view line) {
    static constexpr std::string_view of_errors[] = {
        "qrtln: ", "failed: ", "damaged: ", "not recovered: ", "in use: "};
    for (std::string_view word : of_errors)
        if (line.starts_with(word))
            return Priority::error;
    return line.starts_with("warning: ") ? Priority::warning : Priority::notice;
}

// JOURNAL_STREAM names device and inode of the stream that leads into the journal.
bool leads_into_journal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && ::fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

void write_error_stream(const std::string& text) {
    // There is nowhere to report that standard error cannot be written.
    (void)write_all(STDERR_FILENO, as_bytes(text));
}

// Columns on the terminal: the bytes that begin a character.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    }));
}

} // namespace

void configure_output(ProgressStyle progress, bool quiet) {
    settings() = {progress, quiet, leads_into_journal()};
    struct sigaction action {};
    action.sa_handler = [](int) { progress_wanted = 1; };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
}

void print_message(const std::string& line) {
    const Priority priority = priority_of(line);
    if (settings().quiet && priority == Priority::notice)
        return;
    Progress::clear();
    if (!settings().journal) {
        write_error_stream(line + "\n");
        return;
    }
    std::string text;
    for (std::size_t at = 0; at <= line.size();) {
        const std::size_t end = std::min(line.find('\n', at), line.size());
        text += fmt::format("<{}>{}\n", static_cast<int>(priority), line.substr(at, end - at));
        at = end + 1;
    }
    write_error_stream(text);
}

void print_warnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings)
        print_message("warning: " + for_terminal(warning));
}

void print_error(const std::string& message, const std::string& hint) {
    print_message(fmt::format("qrtln: {}{}", message, hint.empty() ? "" : "\n  hint: " + hint));
}

void print_output(const std::string& text) {
    Progress::clear();
    if (int error = write_all(STDOUT_FILENO, as_bytes(text)); error != 0)
        throw ClientError(ExitCode::failed,
                          "cannot write to standard output: " + system_error_text(error));
}

namespace {

// Of all lines; docs/schemas describes each. A member is never renamed or given another meaning
// under the same number.
constexpr int json_schema = 1;

bool is_nothing(const nlohmann::json& value) {
    return value.is_null() || value == "" || value == "-";
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the documents that this program makes
void leave_out_nothings(nlohmann::json& document) {
    if (document.is_object())
        for (auto member = document.begin(); member != document.end();)
            member = is_nothing(*member) ? document.erase(member) : std::next(member);
    if (document.is_structured())
        for (nlohmann::json& part : document)
            leave_out_nothings(part);
}

void print_json_line(const char* type, nlohmann::json document) {
    leave_out_nothings(document);
    document["schema"] = json_schema;
    document["message_type"] = type;
    print_output(
        json_for_terminal(document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) +
        "\n");
}

} // namespace

void print_json(nlohmann::json document) {
    print_json_line("summary", std::move(document));
}

void print_json_error(int code, const std::string& message, const std::string& hint) {
    print_json_line(
        "exit_error",
        {{"code", code}, {"message", printable_utf8(message)}, {"hint", printable_utf8(hint)}});
}

void print_report(const std::string& text, int exit_code) {
    if (!settings().quiet || exit_code != 0)
        print_output(text);
}

namespace {

constexpr std::chrono::milliseconds between_redraws{200};
constexpr std::chrono::minutes between_lines{1};

} // namespace

Progress::Progress(std::uint64_t databases)
    : m_databases(databases), m_start(std::chrono::steady_clock::now()), m_last_told(m_start) {
    const ProgressStyle style = settings().progress;
    m_redraws = style == ProgressStyle::always ||
                (style == ProgressStyle::automatic && ::isatty(STDERR_FILENO) == 1);
    m_tells = style != ProgressStyle::never && !settings().quiet;
    if (m_redraws) // at once, and not only where a run takes its time
        m_last_told -= between_redraws;
    current_progress = this;
}

Progress::~Progress() {
    clear();
    current_progress = nullptr;
}

void Progress::clear() {
    if (progress_shown)
        write_error_stream("\r\x1b[K");
    progress_shown = false;
}

void Progress::next_database() {
    ++m_database;
    tell();
}

void Progress::add_bytes(std::uint64_t bytes) {
    m_bytes += bytes;
    tell();
}

void Progress::tick() {
    if (current_progress != nullptr)
        current_progress->tell();
}

std::string Progress::text(std::chrono::steady_clock::time_point now) const {
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    auto rate = static_cast<std::uint64_t>(static_cast<double>(m_bytes) / std::max(seconds, 0.001));
    return fmt::format("database {} of {}, {}, {}/s", m_database, std::max(m_databases, m_database),
                       human_bytes(m_bytes), human_bytes(rate));
}

void Progress::tell() {
    const bool wanted = progress_wanted != 0;
    const auto now = std::chrono::steady_clock::now();
    const bool due = m_tells && now - m_last_told >= (m_redraws ? between_redraws : between_lines);
    if (!wanted && !due)
        return;
    progress_wanted = 0;
    m_last_told = now;
    if (m_redraws && !wanted) {
        write_error_stream("\r" + text(now) + "\x1b[K");
        progress_shown = true;
    } else {
        clear();
        write_error_stream((settings().journal ? "<6>" : "") + text(now) + "\n");
    }
}

Table::Table(std::vector<std::string> headings) {
    for (std::string& heading : headings) {
        m_right.push_back(heading.ends_with(' '));
        if (m_right.back())
            heading.pop_back();
    }
    m_rows.push_back(std::move(headings));
}

void Table::add(std::vector<std::string> row) {
    m_rows.push_back(std::move(row));
}

std::string Table::text() const {
    std::vector<std::size_t> widths(m_right.size());
    for (const auto& row : m_rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], width(row[i]));
    std::string text;
    for (const auto& row : m_rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            std::string padding(widths[i] - width(row[i]), ' ');
            line += (i == 0 ? "" : "  ") + (m_right[i] ? padding + row[i] : row[i] + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

} // namespace qrtln
