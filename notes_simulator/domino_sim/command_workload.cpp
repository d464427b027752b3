// workload: writers at full rate, and a manifest of what they commit.
#include "notes_simulator/base/status.h"
#include "notes_simulator/domino_sim/attachment.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/domino_sim/manifest.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

constexpr std::uint64_t kOneInLarge = 40; // transactions that spill half-written pages
constexpr int kLargeTransaction = 30;
constexpr std::size_t kFewNotes = 20;   // below this, nothing is deleted
constexpr std::size_t kManyNotes = 160; // above this, nothing is added: databases stay small
constexpr int kExitWriterFailed = 3;
constexpr std::uint64_t kOneInAttachment = 10; // of new notes
constexpr std::size_t kAttachmentSize = 9000;  // bytes

struct WorkloadOptions {
    std::string server;
    double seconds = 0;
    std::uint64_t seed = 1;
    int writers = 1;
    std::string manifest;
    bool attach = false;
    std::vector<std::string> databases;
};

volatile std::sig_atomic_t g_stop = 0;

void stopOnSignal(int) {
    g_stop = 1;
}

void installStop() {
    struct sigaction action = {};
    action.sa_handler = stopOnSignal;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

/// One writer: changes databases at random until it is told to stop.
class Writer {
  public:
    Writer(const Server& server, const WorkloadOptions& options, std::uint64_t seed)
        : m_server(server), m_manifest(options.manifest), m_content(seed),
          m_attach(options.attach) {
        for (const std::string& name : options.databases) {
            m_databases.push_back(
                std::make_unique<Database>(server.resolve(name), Connection::Mode::kReadWrite));
            m_names.push_back(server.nameOf(server.resolve(name)));
        }
    }

    void step() {
        const std::size_t which = m_content.below(m_databases.size());
        Database& database = *m_databases[which];
        CommitHooks hooks;
        hooks.beforeLog = [&](const Commit& commit) { m_manifest.commit(m_names[which], commit); };
        try {
            commitChanges(m_server, database, transaction(database), hooks);
        } catch (const StatusError& error) {
            // Another writer was faster to delete a note; nothing happened.
            if (error.status() != kNoSuchNote) {
                throw;
            }
        }
    }

  private:
    std::vector<NoteChange> transaction(Database& database) {
        const std::vector<NoteId> present = ids(database);
        std::vector<NoteChange> changes;
        int left = 1 + static_cast<int>(m_content.below(3));
        if (m_content.below(kOneInLarge) == 0) {
            left = kLargeTransaction;
        }
        const std::uint64_t most = largestPayload(m_server.extentSize);
        for (std::uint64_t size = 0; left > 0; --left) {
            NoteChange change = oneChange(present);
            size += change.note.body.size() + 256;
            if (size > most) {
                break;
            }
            const bool again =
                std::any_of(changes.begin(), changes.end(), [&change](const NoteChange& other) {
                    return change.note.id != 0 && other.note.id == change.note.id;
                });
            if (!again) {
                changes.push_back(std::move(change));
            }
        }
        return changes;
    }

    NoteChange oneChange(const std::vector<NoteId>& present) {
        const std::uint64_t dice = m_content.below(10);
        if (dice < 3 && present.size() > kFewNotes) {
            NoteChange change;
            change.kind = ChangeKind::kDelete;
            change.note.id = present[m_content.below(present.size())];
            return change;
        }
        NoteChange change = m_attach && m_content.below(kOneInAttachment) == 0
                                ? attach(m_server, m_content, kAttachmentSize)
                                : m_content.newNote();
        const bool update = !present.empty() && (dice < 6 || present.size() > kManyNotes);
        if (update) {
            change.note.id = present[m_content.below(present.size())];
        }
        return change;
    }

    static std::vector<NoteId> ids(Database& database) {
        Statement read(database.connection(), "SELECT note_id FROM notes");
        std::vector<NoteId> ids;
        while (read.step()) {
            ids.push_back(static_cast<NoteId>(read.integer(0)));
        }
        return ids;
    }

    const Server& m_server;
    ManifestWriter m_manifest;
    ContentGenerator m_content;
    const bool m_attach;
    std::vector<std::unique_ptr<Database>> m_databases;
    std::vector<std::string> m_names;
};

int runWriter(const Server& server, const WorkloadOptions& options, int number) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM); // a killed workload leaves no writers behind
    try {
        Writer writer(server, options, options.seed * 1000 + static_cast<std::uint64_t>(number));
        while (g_stop == 0) {
            writer.step();
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "domino-sim: writer " << number << ": " << error.what() << '\n';
        return kExitWriterFailed;
    }
}

void writeBase(const Server& server, const WorkloadOptions& options) {
    ManifestWriter manifest(options.manifest);
    const ServerLock lock(server);
    const auto log = openLog(server, lock);
    for (const std::string& name : options.databases) {
        Database database(server.resolve(name), Connection::Mode::kReadWrite);
        if (log) {
            adoptIntoLog(server, database, *log);
        }
        manifest.base(server.nameOf(server.resolve(name)), readState(database, false));
    }
}

void runWorkload(WorkloadOptions options) {
    const Server server = useServer(options.server);
    if (options.databases.empty()) {
        for (const fs::path& file : allDatabases(server)) {
            if (!isOffline(server, file)) {
                options.databases.push_back(server.nameOf(file));
            }
        }
    }
    std::vector<std::unique_ptr<UseMark>> marks; // inherited by the writers
    for (const std::string& name : options.databases) {
        marks.push_back(std::make_unique<UseMark>(server, requireDatabase(server, name)));
    }
    if (options.databases.empty()) {
        throw StatusError(kInvalidArgument, "the server has no databases");
    }
    installStop();
    writeBase(server, options);
    std::vector<pid_t> writers;
    for (int number = 0; number < options.writers; ++number) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            std::_Exit(runWriter(server, options, number));
        }
        if (pid < 0) {
            g_stop = 1;
            break;
        }
        writers.push_back(pid);
    }
    std::cout << "workload of " << writers.size() << " writers runs" << std::endl;
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<long>(options.seconds * 1000));
    bool failed = writers.size() < static_cast<std::size_t>(options.writers);
    std::size_t ended = 0;
    bool told = false;
    while (ended < writers.size()) {
        const bool over = options.seconds > 0 && std::chrono::steady_clock::now() >= end;
        if (!told && (over || g_stop != 0 || failed)) {
            told = true;
            for (const pid_t pid : writers) {
                ::kill(pid, SIGTERM);
            }
        }
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, WNOHANG);
        if (pid > 0) {
            ++ended;
            failed = failed || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        } else {
            ::usleep(5000);
        }
    }
    if (failed) {
        throw StatusError(kIoError, "a writer failed");
    }
}

} // namespace

void addWorkloadCommand(CLI::App& app) {
    auto options = std::make_shared<WorkloadOptions>();
    CLI::App* command = app.add_subcommand(
        "workload", "Change databases at full rate until the time is over or SIGTERM or SIGINT "
                    "comes, and write every commit to a manifest");
    command->add_option("SERVER", options->server, "Server folder")->required();
    command->add_option("DB", options->databases, "Databases to change; all when none is named");
    command->add_option("--seconds", options->seconds, "How long; until a signal when not given");
    command->add_option("--seed", options->seed, "Seed of what the writers do")
        ->capture_default_str();
    command->add_option("--writers", options->writers, "Processes that write")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    command->add_flag("--attach", options->attach, "Some notes have attachments, in objects");
    command->add_option("--manifest", options->manifest, "File that the commits are appended to")
        ->required();
    command->callback([options] { runWorkload(*options); });
}

} // namespace domino_sim
