#include "client/base/output.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/text.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

bool progress_shown = false;

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

void print_message(const std::string& line) {
    Progress::clear();
    write_error_stream(line + "\n");
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

void print_json(const nlohmann::json& document) {
    print_output(
        json_for_terminal(document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace)) +
        "\n");
}

Progress::Progress(std::uint64_t databases)
    : m_terminal(::isatty(STDERR_FILENO) == 1), m_databases(databases),
      m_start(std::chrono::steady_clock::now()), m_last_drawn(m_start) {}

Progress::~Progress() {
    clear();
}

void Progress::clear() {
    if (progress_shown)
        write_error_stream("\r\x1b[K");
    progress_shown = false;
}

void Progress::add_bytes(std::uint64_t bytes) {
    m_bytes += bytes;
    if (!m_terminal)
        return;
    auto now = std::chrono::steady_clock::now();
    if (now - m_last_drawn >= std::chrono::milliseconds(200)) {
        m_last_drawn = now;
        draw();
    }
}

void Progress::draw() {
    double seconds = std::chrono::duration<double>(m_last_drawn - m_start).count();
    auto rate = static_cast<std::uint64_t>(static_cast<double>(m_bytes) / std::max(seconds, 0.001));
    std::string line =
        fmt::format("database {} of {}, {}, {}/s", m_database, std::max(m_databases, m_database),
                    human_bytes(m_bytes), human_bytes(rate));
    write_error_stream("\r" + line + "\x1b[K");
    progress_shown = true;
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
