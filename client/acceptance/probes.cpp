#include "client/acceptance/probes.h"

#include "client/acceptance/local_checks.h"
#include "client/acceptance/notes_runtime.h"
#include "client/acceptance/probe_times.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/notes_ini.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <set>
#include <sys/stat.h>

namespace qrtln::acceptance {

namespace {

constexpr std::size_t named_at_most = 20; // of databases with one fault each

bool is_ascii(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

void compare_directories(Teller& teller, const NotesIni& ini) {
    std::vector<char> buffer(path_buffer_size);
    teller.calling("OSGetDataDirectory()");
    const WORD length = notes_api.OSGetDataDirectory(buffer.data());
    const std::string data = buffer.data();
    if (length == 0 || !is_same_place(data, ini.data_directory))
        teller.stop("directory",
                    length == 0
                        ? "the library tells no data directory"
                        : fmt::format("the library's data directory is {}, that of notes.ini {}",
                                      printable_utf8(data), printable_utf8(ini.data_directory)),
                    {{"OSGetDataDirectory", length}});
    std::fill(buffer.begin(), buffer.end(), '\0');
    teller.calling("OSGetEnvironmentString(NotesProgram)");
    if (notes_api.OSGetEnvironmentString("NotesProgram", buffer.data(), module_path_size) == 0)
        teller.stop("directory",
                    "the library does not tell NotesProgram: the module cannot start "
                    "without it",
                    {{"OSGetEnvironmentString", 0}});
    const std::string program = buffer.data();
    if (!ini.program_directory.empty() && !is_same_place(program, ini.program_directory))
        teller.told("directory",
                    fmt::format("the library's NotesProgram is {}, that of notes.ini {}",
                                printable_utf8(program), printable_utf8(ini.program_directory)));
    teller.ok("directory", "the library has the data directory of notes.ini");
}

// The name that comes back from the server's character set.
std::string there_and_back(Teller& teller, const NamedDatabase& name) {
    const std::vector<char> lmbcs = lmbcs_path(teller, name);
    std::vector<char> back(path_buffer_size);
    constexpr WORD lmbcs_to_native = 1;
    teller.calling(fmt::format("OSTranslate(1, {})", name.shown));
    notes_api.OSTranslate(lmbcs_to_native, lmbcs.data(), kTranslateWholeString, back.data(),
                          static_cast<WORD>(back.size() - 1));
    back.back() = '\0';
    return back.data();
}

void translate_names(Teller& teller, const ProbeRequest& request) {
    std::string lost;
    std::size_t lost_count = 0;
    std::size_t others = 0;
    for (const NamedDatabase& database : request.databases) {
        others += is_ascii(database.path) ? 0 : 1;
        if (there_and_back(teller, database) == database.path)
            continue;
        if (++lost_count <= named_at_most)
            lost += (lost.empty() ? "" : ", ") + database.shown;
    }
    if (lost_count > 0)
        teller.stop("names", fmt::format("not every name comes back from the server's character "
                                         "set (codeset {}): {}; {} in all",
                                         environment_codeset(), lost, lost_count));
    teller.ok(
        "names",
        fmt::format("{} names, {} of them not ASCII, come back from the server's character set",
                    request.databases.size(), others));
    const NamedDatabase sample{"\xC3\xA4\xE2\x82\xAC", "\xC3\xA4\xE2\x82\xAC"};
    if (there_and_back(teller, sample) != sample.path)
        teller.told(
            "names",
            fmt::format(
                "a made-up name, {}, does not come back: databases with such names would fail",
                sample.shown));
}

// What all databases together tell.
struct Databases {
    std::size_t opened = 0;
    std::size_t logged = 0;
    std::size_t failed = 0;
    std::uint64_t bytes = 0;
    WORD build = 0;
    std::set<std::string> logs;
    std::map<std::string, std::string> instances; // to one that has it
};

std::string bytes_of(const UNIVERSALNOTEID& id) {
    return {reinterpret_cast<const char*>(&id), sizeof id};
}

void ask_logging(Teller& teller, DBHANDLE handle, const NamedDatabase& database, Databases& all) {
    BOOL logged = 0;
    UNIVERSALNOTEID log{};
    UNIVERSALNOTEID instance{};
    DWORD extent = 0;
    teller.calling(fmt::format("NSFDbGetLogInfo({})", database.shown));
    const STATUS status = notes_api.NSFDbGetLogInfo(handle, 0, &logged, &log, &instance, &extent);
    if (status != kNotesNoError) {
        teller.told("logging",
                    fmt::format("{}: it is not known whether it is logged: {}", database.shown,
                                status_text(status)),
                    {{"NSFDbGetLogInfo", status}});
        return;
    }
    if (logged == 0)
        return;
    ++all.logged;
    all.logs.insert(bytes_of(log));
    auto [other, fresh] = all.instances.emplace(bytes_of(instance), database.shown);
    if (!fresh)
        teller.told("instances",
                    fmt::format("{} has the instance identity of {}: one is a copy of the other",
                                database.shown, other->second));
}

void ask_build(Teller& teller, DBHANDLE handle, const NamedDatabase& database, Databases& all) {
    teller.calling(fmt::format("NSFDbGetBuildVersion({})", database.shown));
    const STATUS status = notes_api.NSFDbGetBuildVersion(handle, &all.build);
    if (status != kNotesNoError)
        teller.told(
            "build",
            fmt::format("the release of {} is not told: {}", database.shown, status_text(status)),
            {{"NSFDbGetBuildVersion", status}});
}

void look_at(Teller& teller, const NamedDatabase& database, Databases& all) {
    struct stat file {};
    if (::stat(database.path.c_str(), &file) == 0)
        all.bytes += static_cast<std::uint64_t>(file.st_size);
    try {
        OpenDatabase open(teller, database);
        if (++all.opened == 1)
            ask_build(teller, open.handle(), database, all);
        ask_logging(teller, open.handle(), database, all);
        open.close();
    } catch (const Surprise& surprise) {
        if (surprise.finding.name != "open")
            throw;
        // One that cannot be opened is in no set; the others are.
        if (++all.failed <= named_at_most)
            teller.told("open", surprise.finding.text, surprise.finding.statuses, true);
    }
}

} // namespace

void probe_start(Teller& teller, const ProbeRequest& request) {
    { Runtime runtime(teller, request.ini, true); }
    teller.ok("end", "the runtime has ended");
}

void probe_second_start(Teller& teller, const ProbeRequest& request) {
    { Runtime runtime(teller, request.ini); }
    teller.ok("start", "it starts and ends a second time");
}

void probe_names_and_times(Teller& teller, const ProbeRequest& request) {
    Runtime runtime(teller, request.ini);
    compare_directories(teller, request.ini);
    translate_names(teller, request);
    probe_times(teller);
}

void probe_databases(Teller& teller, const ProbeRequest& request) {
    Runtime runtime(teller, request.ini);
    Databases all;
    for (const NamedDatabase& database : request.databases)
        look_at(teller, database, all);
    const std::string counts = fmt::format(
        "{} of {} databases opened and closed, {} logged, {} in their files, build {}", all.opened,
        request.databases.size(), all.logged, human_bytes(all.bytes), all.build);
    if (all.opened == 0 && all.failed > 0)
        teller.stop("databases", "none can be opened: " + counts);
    if (all.failed > named_at_most)
        teller.told("open", std::to_string(all.failed - named_at_most) + " more cannot be opened",
                    {}, true);
    if (all.logs.size() > 1)
        teller.told("logging", fmt::format("the databases name {} different transaction logs",
                                           all.logs.size()));
    teller.ok("databases", counts);
}

void probe_log_style(Teller& teller, const ProbeRequest& request) {
    Runtime runtime(teller, request.ini);
    teller.calling("NSFGetTransLogStyle()");
    WORD style = 0xFFFF;
    const STATUS status = notes_api.NSFGetTransLogStyle(&style);
    const Statuses statuses = {{"NSFGetTransLogStyle", status}};
    const bool none = isStatus(status, kNotesLoggingNotInEffect);
    if (status != kNotesNoError && !none)
        teller.stop("style", "the style of the log is not told: " + status_text(status), statuses);
    if (!none && style > kLogStyleLinear)
        teller.stop("style", fmt::format("the style of the log is {}, none that is known", style),
                    statuses);
    static constexpr const char* names[] = {"circular", "archive", "linear"};
    const NotesIni& ini = request.ini;
    const std::string told = none ? "no logging" : names[style];
    const std::string expected = !ini.logging         ? "no logging"
                                 : ini.archives_logs  ? "archive"
                                 : ini.linear_logging ? "linear"
                                                      : "circular";
    if (told != expected)
        teller.stop("style",
                    fmt::format("the library says: {}, notes.ini: {}; was the server restarted "
                                "since notes.ini was changed?",
                                told, expected),
                    statuses);
    teller.ok("style", told, statuses);
}

} // namespace qrtln::acceptance
