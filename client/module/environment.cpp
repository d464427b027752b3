#include "client/module/environment.h"

#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/module/told_server.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <fmt/format.h>
#include <langinfo.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr const char* exec_directory_variable = "Notes_ExecDirectory";
constexpr const char* server_library = "libnotes.so";

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool is_directory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Where the server's programs are; empty when neither the environment nor notes.ini says so.
std::string program_directory(const NotesIni& ini) {
    std::string inherited = variable(exec_directory_variable);
    return inherited.empty() ? ini.program_directory : absolute_path(inherited);
}

// These folders, then the inherited ones. An empty or relative one would be looked for in the data
// directory, which is the working directory later.
std::string search_path(const std::vector<std::string>& folders, const std::string& inherited) {
    std::string path;
    auto add = [&](const std::string& folder) {
        if ((":" + path + ":").find(":" + folder + ":") == std::string::npos)
            path += (path.empty() ? "" : ":") + folder;
    };
    for (const std::string& folder : folders)
        if (folder.find(':') == std::string::npos && is_directory(folder))
            add(folder);
    for (std::size_t begin = 0; begin < inherited.size();) {
        std::size_t end = std::min(inherited.find(':', begin), inherited.size());
        if (end > begin)
            add(absolute_path(inherited.substr(begin, end - begin)));
        begin = end + 1;
    }
    return path;
}

std::string library_path(const NotesIni& ini) {
    return search_path({program_directory(ini)}, variable("LD_LIBRARY_PATH"));
}

bool is_utf8_locale(const std::string& name) {
    locale_t locale = ::newlocale(LC_CTYPE_MASK, name.c_str(), nullptr);
    if (locale == nullptr)
        return false;
    bool is = ::strcasecmp(::nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
    ::freelocale(locale);
    return is;
}

// "de_DE" of "de_DE.ISO-8859-1@euro"; empty for a locale of no language.
std::string language_of(const std::string& locale) {
    std::string language = locale.substr(0, locale.find_first_of(".@"));
    return language == "C" || language == "POSIX" ? "" : language;
}

void choose_locale(ModuleEnvironment& environment) {
    const std::string all = variable("LC_ALL");
    const std::string type = variable("LC_CTYPE");
    const std::string general = variable("LANG");
    const std::string& effective = !all.empty() ? all : !type.empty() ? type : general;
    if (!effective.empty() && is_utf8_locale(effective))
        return;
    std::vector<std::string> candidates;
    for (const std::string& locale : {effective, general})
        if (std::string language = language_of(locale); !language.empty())
            candidates.push_back(language + ".UTF-8");
    candidates.insert(candidates.end(), {"C.UTF-8", "en_US.UTF-8"});
    auto found = std::find_if(candidates.begin(), candidates.end(), is_utf8_locale);
    if (found == candidates.end()) {
        environment.warnings.push_back(
            fmt::format("this system has no UTF-8 locale: databases whose names are not ASCII "
                        "cannot be saved or restored; install {}C.UTF-8",
                        candidates.front() == "C.UTF-8" ? "" : candidates.front() + " or "));
        return;
    }
    environment.variables.emplace_back(all.empty() ? "LC_CTYPE" : "LC_ALL", *found);
    // Some look at it themselves; but what else it decides, such as the order of dates, stays.
    if (language_of(general).empty() || found->starts_with(language_of(general) + "."))
        environment.variables.emplace_back("LANG", *found);
}

void compare_program_directories(const NotesIni& ini, ModuleEnvironment& environment) {
    const std::string inherited = variable(exec_directory_variable);
    if (inherited.empty() || ini.program_directory.empty() ||
        is_same_place(inherited, ini.program_directory))
        return;
    environment.warnings.push_back(
        fmt::format("Notes_ExecDirectory is {}, but NotesProgram of {} is {}: the server's library "
                    "is taken from the first",
                    inherited, ini.file, ini.program_directory));
}

// The word before this text; empty when the text is not there.
std::string word_before(const std::string& text, std::string_view end) {
    std::size_t at = text.find(end);
    if (at == std::string::npos)
        return {};
    std::size_t begin = text.rfind(": ", at - 1);
    begin = begin == std::string::npos ? 0 : begin + 2;
    return text.substr(begin, at - begin);
}

std::string word_after(const std::string& text, std::string_view beginning) {
    std::size_t at = text.find(beginning);
    if (at == std::string::npos)
        return {};
    at += beginning.size();
    return text.substr(at, text.find_first_of(" ,", at) - at);
}

} // namespace

ModuleEnvironment module_environment(const NotesIni& ini) {
    ModuleEnvironment environment;
    const std::string inherited = variable(exec_directory_variable);
    std::string exec = inherited.empty() ? exec_directory(ini) : absolute_path(inherited);
    if (!exec.empty())
        environment.variables.emplace_back(exec_directory_variable, exec);
    if (std::string libraries = library_path(ini); !libraries.empty())
        environment.variables.emplace_back("LD_LIBRARY_PATH", libraries);
    const std::string program = program_directory(ini);
    const char* path = std::getenv("PATH");
    environment.variables.emplace_back("PATH",
                                       search_path({program, program + "/res", ini.data_directory},
                                                   path != nullptr ? path : "/usr/bin:/bin"));
    choose_locale(environment);
    compare_program_directories(ini, environment);
    return environment;
}

std::vector<std::string>
environment_with(const std::vector<std::pair<std::string, std::string>>& variables) {
    std::vector<std::string> result;
    for (char** inherited = environ; *inherited != nullptr; ++inherited) {
        const std::string_view text = *inherited;
        if (std::none_of(variables.begin(), variables.end(), [&](const auto& variable) {
                return text.substr(0, text.find('=')) == variable.first;
            }))
            result.emplace_back(text);
    }
    for (const auto& [name, value] : variables)
        result.push_back(fmt::format("{}={}", name, value));
    return result;
}

std::string loader_hint(const std::string& text, const NotesIni& ini) {
    const std::string looked = library_path(ini);
    const std::string where = (looked.empty() ? "" : for_terminal(looked) + " and ") +
                              "the system's folders of libraries";
    const std::string program = program_directory(ini);
    const bool has_library =
        !program.empty() && ::access((program + "/" + server_library).c_str(), F_OK) == 0;
    if (std::string file = word_before(text, ": cannot open shared object file"); !file.empty()) {
        if (file.ends_with(server_library) && !has_library)
            return fmt::format("there is no libnotes.so in {}: set Notes_ExecDirectory to the "
                               "folder of the server's libnotes.so, or NotesProgram in {}",
                               where, for_terminal(ini.file));
        if (text.find("No such file") == std::string::npos)
            return fmt::format("look at the mode of {}, and of the folders above it",
                               for_terminal(file));
        return fmt::format("{} is missing in {}: add its folder to LD_LIBRARY_PATH, or install it",
                           for_terminal(file), where);
    }
    if (std::string symbol = word_after(text, "undefined symbol: "); !symbol.empty())
        return fmt::format("no library has {}, which {} wants; they were looked for in {}: are all "
                           "of them of the same release of the server?",
                           for_terminal(symbol),
                           for_terminal(word_before(text, ": undefined symbol: ")), where);
    if (std::string function = parse_missing_function(text); !function.empty())
        return fmt::format("libnotes.so was looked for in {}, and the one that was found has no "
                           "{}: is it that of a server?",
                           where, for_terminal(function));
    return {};
}

} // namespace qrtln
