// init and create: a server folder, and databases in it.
#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/server/server.h"

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

constexpr std::uint64_t kMebibyte = 1024 * 1024;
constexpr int kNotesInDatabase = 60;
constexpr int kSmallestServer = 5; // names.nsf, log.nsf, mail.box, a template, one mail file

struct InitOptions {
    std::string server;
    std::string style = "archive";
    std::uint64_t extentSize = kMebibyte;
    int databases = 8;
    std::uint64_t seed = 1;
    std::string strict;
    std::string objects;
    std::optional<std::uint32_t> firstLog;
};

struct CreateOptions {
    std::string server;
    std::string database;
    bool unlogged = false;
    int notes = kNotesInDatabase;
    std::uint64_t seed = 1;
};

void writeFile(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    replaceFile(file, content);
}

/// For the mood "zone": one that no clock of this machine shows at any time of a year.
std::string foreignZone() {
    const auto shown = [](long offset) {
        std::time_t time = std::time(nullptr);
        for (int month = 0; month < 12; ++month, time += 30 * 24 * 3600L) {
            std::tm local = {};
            if (::localtime_r(&time, &local) != nullptr && local.tm_gmtoff == offset) {
                return true;
            }
        }
        return false;
    };
    return shown(19800) ? "SimZone=-03:30\n" : "SimZone=+05:30\n";
}

/// Where hosts find libnotes.so: as they will be told, or where it is installed with this program.
fs::path programFolder(const fs::path& root) {
    if (const char* const programs = std::getenv("Notes_ExecDirectory")) {
        return fs::absolute(programs);
    }
    std::error_code error;
    const fs::path own = fs::read_symlink("/proc/self/exe", error).parent_path().parent_path();
    const fs::path installed = own / DOMINO_SIM_LIBRARIES;
    return fs::exists(installed / "libnotes.so", error) ? installed : root / "program";
}

std::string notesIni(const InitOptions& options, const fs::path& root) {
    const bool logging = options.style != "none";
    const std::string style = options.style == "archive"  ? "1"
                              : options.style == "linear" ? "2"
                                                          : "0";
    const std::optional<Moods> strict = parseMoods(options.strict);
    const std::uint64_t ringMebibytes =
        std::max<std::uint64_t>(1, (4 * options.extentSize + kMebibyte - 1) / kMebibyte);
    return "[Notes]\n"
           "Directory=" +
           (root / "data").string() +
           "\n"
           "NotesProgram=" +
           programFolder(root).string() +
           "\n"
           "KeyFilename=user.id\n"
           "TRANSLOG_Status=" +
           (logging ? "1" : "0") +
           "\n"
           "TRANSLOG_Style=" +
           style +
           "\n"
           "TRANSLOG_Path=" +
           (root / "logs").string() +
           "\n"
           "TRANSLOG_MaxSize=" +
           std::to_string(ringMebibytes) +
           "\n"
           "TRANSLOG_SimExtentSize=" +
           std::to_string(options.extentSize) + "\n" +
           (options.objects.empty() ? "" : "DAOSEnable=1\nDAOSBasePath=" + options.objects + "\n") +
           (options.strict.empty() ? "" : "SimStrict=" + options.strict + "\n") +
           (options.firstLog ? "SimFirstLog=" + std::to_string(*options.firstLog) + "\n" : "") +
           (strict && strict->has(Mood::kZone) ? foreignZone() : "");
}

/// The databases of a new server: the ones that every server has, then mail files.
std::vector<std::string> databaseNames(int count) {
    std::vector<std::string> names = {"names.nsf", "log.nsf", "mail.box", "pubnames.ntf"};
    for (int user = 1; static_cast<int>(names.size()) < count; ++user) {
        names.push_back("mail/user" + std::to_string(user) + ".nsf");
    }
    return names;
}

void runInit(const InitOptions& options) {
    const fs::path root = fs::absolute(options.server).lexically_normal();
    const fs::path folder = root.has_filename() ? root : root.parent_path();
    std::error_code error;
    if (fs::exists(folder / "notes.ini", error)) {
        throw StatusError(kInvalidArgument, folder.string() + " is a server already");
    }
    for (const char* name : {"data", "logs", "program", "state/contexts", "state/backups",
                             "state/journals", "state/open"}) {
        fs::create_directories(folder / name);
    }
    writeFile(folder / "data/notes.ini", notesIni(options, folder));
    // One file under two names: a server keeps it in its data directory, where a backup finds it.
    fs::create_hard_link(folder / "data/notes.ini", folder / "notes.ini");
    writeFile(folder / "data/desktop.dsk", "icons of the workspace\n");
    writeFile(folder / "data/user.id", "keys of the server's administrator\n");
    writeFile(folder / "data/httpd.cfg", "Port 80\n");
    writeFile(folder / "data/user.dic", "Domino\n");

    const Server server = useServer(folder.string());
    std::uint64_t seed = options.seed;
    for (const std::string& name : databaseNames(options.databases)) {
        createDatabase(server, server.data / name, true, name, kNotesInDatabase, seed++);
    }
    std::cout << "server " << folder.string() << ": " << options.databases << " databases, "
              << (server.style == LogStyle::kNone ? "no" : options.style)
              << " transaction logging\n";
}

void runCreate(const CreateOptions& options) {
    const Server server = useServer(options.server);
    createDatabase(server, server.resolve(options.database), !options.unlogged, options.database,
                   options.notes, options.seed);
}

} // namespace

void addInitCommands(CLI::App& app) {
    auto init = std::make_shared<InitOptions>();
    CLI::App* command = app.add_subcommand("init", "Make a server folder with databases");
    command->add_option("SERVER", init->server, "Folder to make")->required();
    command->add_option("--style", init->style, "Style of the transaction log")
        ->check(CLI::IsMember({"archive", "circular", "linear", "none"}))
        ->capture_default_str();
    command->add_option("--extent-size", init->extentSize, "Bytes in a log extent")
        ->check(CLI::Range(std::uint64_t{65536}, std::uint64_t{1} << 32))
        ->capture_default_str();
    command->add_option("--databases", init->databases, "How many databases, templates included")
        ->check(CLI::Range(kSmallestServer, 100000))
        ->capture_default_str();
    command->add_option("--seed", init->seed, "Seed of the made-up notes")->capture_default_str();
    command->add_option("--objects", init->objects,
                        "Folder of the attachment objects, below the data directory unless it is a "
                        "full path (default: DAOS)");
    command
        ->add_option("--strict", init->strict,
                     "Moods in which it does what a real server may do, or all: " +
                         CLI::detail::join(moodNames(), ","))
        ->type_name("MOOD,...")
        ->check([](const std::string& text) {
            return parseMoods(text) ? std::string() : "one of its names is no mood";
        });
    command->add_option("--first-log", init->firstLog,
                        "Number that a log begins with in the mood logs; without it 0");
    command->callback([init] { runInit(*init); });

    auto create = std::make_shared<CreateOptions>();
    command = app.add_subcommand("create", "Add a database to a server");
    command->add_option("SERVER", create->server, "Server folder")->required();
    command->add_option("DB", create->database, "Database, below the data directory")->required();
    command->add_flag("--unlogged", create->unlogged, "Its changes do not go through the log");
    command->add_option("--notes", create->notes, "Notes to begin with")
        ->check(CLI::Range(0, 1000000))
        ->capture_default_str();
    command->add_option("--seed", create->seed, "Seed of the made-up notes")->capture_default_str();
    command->callback([create] { runCreate(*create); });
}

} // namespace domino_sim
