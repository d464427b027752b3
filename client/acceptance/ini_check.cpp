#include "client/acceptance/ini_check.h"

#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>

namespace qrtln::acceptance {

namespace {

constexpr std::size_t maximal_ini = std::size_t{16} << 20;

// A backup goes to another place, or another server's, where one of these is misread.
constexpr std::array decisive = {
    "directory",       "notesprogram",   "servername",    "keyfilename",  "serverkeyfilename",
    "translog_status", "translog_style", "translog_path", "daosbasepath", "daosenable"};

std::string content_of(const NotesIni& ini) {
    std::string path = real_path(ini.file).value_or(ini.file);
    return read_small_file(AT_FDCWD, path, maximal_ini).value_or("");
}

void add(Report& report, Verdict verdict, const std::string& text) {
    report.add({Step::without_library, "notes.ini", verdict, text, {}, false});
}

// The variables of each line by itself, so that the reader of whole files says what a line is.
std::map<std::string, std::vector<std::string>> all_values(const std::string& content) {
    std::map<std::string, std::vector<std::string>> values;
    for (std::size_t start = 0; start < content.size();) {
        std::size_t end = std::min(content.find('\n', start), content.size());
        for (const auto& [name, value] : parse_notes_ini(content.substr(start, end - start)))
            values[name].push_back(value);
        start = end + 1;
    }
    return values;
}

void check_duplicates(Report& report, const std::string& content) {
    for (const auto& [name, values] : all_values(content)) {
        bool differ =
            std::any_of(values.begin(), values.end(),
                        [&first = values[0]](const std::string& value) { return value != first; });
        if (!differ)
            continue;
        bool decides = std::find(decisive.begin(), decisive.end(), name) != decisive.end();
        // Other values may be secrets.
        std::string shown = decides
                                ? fmt::format(": {} first, {} last", printable_utf8(values.front()),
                                              printable_utf8(values.back()))
                                : "";
        add(report, decides ? Verdict::stop : Verdict::told,
            fmt::format("{} is there {} times, with values that differ{}", printable_utf8(name),
                        values.size(), shown));
    }
}

} // namespace

std::string ini_value(const NotesIni& ini, const std::string& name) {
    return parse_notes_ini(content_of(ini))[name];
}

void check_notes_ini(Report& report, const NotesIni& ini) {
    const std::string content = content_of(ini);
    auto variables = parse_notes_ini(content);
    std::string text =
        fmt::format("{}: Directory={}, NotesProgram={}", printable_utf8(ini.file),
                    printable_utf8(ini.data_directory), printable_utf8(ini.program_directory));
    for (const char* name : {"ServerName", "TRANSLOG_Status", "TRANSLOG_Style", "TRANSLOG_Path"}) {
        std::string lower = name;
        for (char& letter : lower)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        text += fmt::format(", {}={}", name, printable_utf8(variables[lower]));
    }
    add(report, Verdict::ok, text);
    if (content.find('\r') != std::string::npos)
        add(report, Verdict::told, "its lines end with CR LF");
    check_duplicates(report, content);
}

} // namespace qrtln::acceptance
