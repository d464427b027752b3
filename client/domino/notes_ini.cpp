#include "client/domino/notes_ini.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/process_note.h"
#include "client/base/text.h"

#include <cctype>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::string_view blanks = " \t\r";
constexpr std::size_t maximal_size = std::size_t{16} << 20;

std::string directory_value(const std::map<std::string, std::string>& variables,
                            const std::string& name) {
    auto found = variables.find(name);
    if (found == variables.end() || found->second.empty())
        return {};
    std::string value = found->second;
    while (value.size() > 1 && value.back() == '/')
        value.pop_back();
    return value;
}

} // namespace

std::map<std::string, std::string> parse_notes_ini(const std::string& content) {
    std::map<std::string, std::string> variables;
    std::string_view rest = content;
    if (rest.starts_with("\xEF\xBB\xBF"))
        rest.remove_prefix(3);
    while (!rest.empty()) {
        std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || trimmed(line, blanks).starts_with('['))
            continue;
        std::string name(trimmed(line.substr(0, equals), blanks));
        for (char& letter : name)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        variables.insert_or_assign(std::move(name),
                                   std::string(trimmed(line.substr(equals + 1), blanks)));
    }
    return variables;
}

NotesIni load_notes_ini(const std::string& file, bool data_directory_may_be_missing) {
    NotesIni ini;
    ini.file = absolute_path(file);
    std::string shown = for_terminal(ini.file);
    if (ini.file.size() + 2 > module_path_size) // the module puts "=" before it
        throw ClientError(ExitCode::failed,
                          "the path of the notes.ini is longer than the module takes: " + shown);
    std::optional<std::string> resolved = real_path(ini.file);
    std::optional<std::string> content;
    if (resolved)
        content = read_small_file(AT_FDCWD, *resolved, maximal_size);
    if (!content)
        throw ClientError(
            ExitCode::server_error,
            fmt::format("cannot read the notes.ini {}: {}", shown,
                        errno == EINVAL ? "it is not a file" : system_error_text(errno)),
            "name the server's notes.ini with --notes-ini");
    auto variables = parse_notes_ini(*content);
    ini.data_directory = directory_value(variables, "directory");
    ini.program_directory = directory_value(variables, "notesprogram");
    ini.own_name = variables["servername"];
    ini.id_file = variables["serverkeyfilename"];
    if (ini.id_file.empty())
        ini.id_file = variables["keyfilename"];
    ini.server_name = host_name();
    ini.sets = {ini.server_name, ini.own_name, ini.data_directory, ini.data_directory};
    if (!ini.data_directory.starts_with('/'))
        throw ClientError(
            ExitCode::server_error,
            ini.data_directory.empty()
                ? fmt::format("the notes.ini {} does not set Directory", shown)
                : fmt::format(
                      "the notes.ini {} sets Directory to '{}', which is not an absolute path",
                      shown, for_terminal(ini.data_directory)),
            "name the notes.ini of a server with --notes-ini");
    std::string objects = directory_value(variables, "daosbasepath");
    if (objects.empty())
        objects = "DAOS";
    ini.attachment_folder =
        absolute_path(objects.starts_with('/') ? objects : ini.data_directory + "/" + objects);
    ini.logging = variables["translog_status"] == "1";
    ini.archives_logs = ini.logging && variables["translog_style"] == "1";
    ini.linear_logging = ini.logging && variables["translog_style"] == "2";
    struct stat status {};
    int error = ::stat(ini.data_directory.c_str(), &status) != 0 ? errno
                : S_ISDIR(status.st_mode)                        ? 0
                                                                 : ENOTDIR;
    if (error != 0 && !(data_directory_may_be_missing && error == ENOENT))
        throw ClientError(ExitCode::server_error,
                          fmt::format("cannot open the data directory {} of {}: {}",
                                      for_terminal(ini.data_directory), shown,
                                      system_error_text(error)),
                          "is the server's disk mounted, and is this its notes.ini?");
    return ini;
}

std::string exec_directory(const NotesIni& ini) {
    const char* set = std::getenv("Notes_ExecDirectory");
    if ((set != nullptr && *set != '\0') || ini.program_directory.empty() ||
        ::access((ini.program_directory + "/libnotes.so").c_str(), R_OK) != 0)
        return {};
    return ini.program_directory;
}

std::string log_directory(const NotesIni& ini) {
    constexpr std::size_t maximal_ini = std::size_t{16} << 20;
    std::optional<std::string> real = real_path(ini.file);
    std::optional<std::string> content;
    if (real)
        content = read_small_file(AT_FDCWD, *real, maximal_ini);
    if (!content)
        return {};
    auto variables = parse_notes_ini(*content);
    std::string path = variables["translog_path"];
    if (path.empty())
        return {};
    return absolute_path(path.starts_with('/') ? path : ini.data_directory + "/" + path);
}

} // namespace qrtln
