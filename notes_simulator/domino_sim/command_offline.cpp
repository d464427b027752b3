// hold, offline and online: who may use a database.
#include "notes_simulator/base/status.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/engine/backup_context.h"
#include "notes_simulator/engine/offline.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/use_mark.h"

#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

struct HoldOptions {
    std::string server;
    std::string database;
    double seconds = 0;
    bool backup = false;
};

struct StateOptions {
    std::string server;
    std::string database;
    unsigned wait = 0;
};

/// Waits for SIGTERM or SIGINT, which are blocked, or until the time is over.
void awaitSignal(const sigset_t& signals, double seconds) {
    if (seconds <= 0) {
        ::sigwaitinfo(&signals, nullptr);
        return;
    }
    const auto whole = static_cast<time_t>(seconds);
    const timespec time{whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    ::sigtimedwait(&signals, nullptr, &time);
}

void runHold(const HoldOptions& options) {
    // Blocked before anything is held: a signal that comes early is found when it is waited for.
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGINT);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    const UseMark mark(server, file);
    std::unique_ptr<ActivityMark> backup;
    const BackupContext context =
        options.backup ? startBackup(server, file, &backup) : BackupContext{};
    if (options.backup && !backup) {
        throw StatusError(kBackupInProgress, file.string());
    }
    std::cout << "holds " << server.nameOf(file) << std::endl;
    awaitSignal(signals, options.seconds);
    if (backup) {
        endBackup(server, server.keyOf(file), context.id, false);
    }
}

void runOffline(const StateOptions& options) {
    const Server server = useServer(options.server);
    takeOffline(server, server.resolve(options.database), std::chrono::seconds(options.wait));
    std::cout << options.database << " is offline\n";
}

void runOnline(const StateOptions& options) {
    const Server server = useServer(options.server);
    bringOnline(server, server.resolve(options.database));
    std::cout << options.database << " is online\n";
}

} // namespace

void addOfflineCommands(CLI::App& app) {
    auto hold = std::make_shared<HoldOptions>();
    CLI::App* command = app.add_subcommand(
        "hold", "Keep a database open, as a task of the server does, until the time is over or "
                "SIGTERM or SIGINT comes; prints a line once it is open");
    command->add_option("SERVER", hold->server, "Server folder")->required();
    command->add_option("DB", hold->database, "Database")->required();
    command->add_option("--seconds", hold->seconds, "How long; until a signal when not given")
        ->check(CLI::Range(0.0, 1e9));
    command->add_flag("--backup", hold->backup,
                      "With a backup of it, as another backup program runs; given up at the end");
    command->callback([hold] { runHold(*hold); });

    auto offline = std::make_shared<StateOptions>();
    command = app.add_subcommand(
        "offline", "Take a database offline: nobody can open it; refused while it is open");
    command->add_option("SERVER", offline->server, "Server folder")->required();
    command->add_option("DB", offline->database, "Database")->required();
    command->add_option("--wait", offline->wait, "Seconds to wait for those that have it open");
    command->callback([offline] { runOffline(*offline); });

    auto online = std::make_shared<StateOptions>();
    command = app.add_subcommand("online",
                                 "Bring a database online, whatever file now lies in its place");
    command->add_option("SERVER", online->server, "Server folder")->required();
    command->add_option("DB", online->database, "Database")->required();
    command->callback([online] { runOnline(*online); });
}

} // namespace domino_sim
