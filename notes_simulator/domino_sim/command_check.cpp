// check: whether a copy is exactly the database at one of its commits.
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/domino_sim/attachment.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/manifest.h"
#include "notes_simulator/engine/backup_context.h"
#include "notes_simulator/server/server.h"

#include <charconv>
#include <iostream>
#include <memory>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

constexpr std::int64_t kLatestSecond = 253402300799; // the end of the year 9999

struct CheckOptions {
    std::string copy;
    std::string database;
    std::string manifest;
    std::string server;
    std::string time;
    std::vector<std::string> objects;
};

/// "@SECONDS[.CC]" since 1970, or "YYYY-MM-DD hh:mm[:ss[.CC]]" in local time, in hundredths of a
/// second. Without a fraction the whole second begins: commits later within it are later.
std::int64_t parseMoment(const std::string& text) {
    const StatusError bad(kBadTimeText, text);
    std::string whole = text;
    std::int64_t hundredths = 0;
    if (const auto point = text.find('.'); point != std::string::npos) {
        const std::string digits = text.substr(point + 1);
        if (digits.size() != 2 || digits.find_first_not_of("0123456789") != std::string::npos) {
            throw bad;
        }
        hundredths = std::stoi(digits);
        whole.resize(point);
    }
    if (whole.starts_with("@")) {
        std::int64_t seconds = 0;
        const char* last = whole.data() + whole.size();
        const auto [end, error] = std::from_chars(whole.data() + 1, last, seconds);
        if (error != std::errc() || end != last || seconds < 0 || seconds > kLatestSecond) {
            throw bad;
        }
        return seconds * 100 + hundredths;
    }
    std::size_t used = 0;
    const auto time = parseTime(whole, {DateFormat::Order::kYearMonthDay, "-", ":"}, &used);
    if (!time || used != whole.size()) {
        throw bad;
    }
    return *time + hundredths;
}

void compare(const char* kind, const std::map<NoteId, std::string>& expected,
             const std::map<NoteId, std::string>& found) {
    for (const auto& [id, digest] : expected) {
        const auto match = found.find(id);
        if (match == found.end()) {
            throw CheckFailed(std::string(kind) + " " + std::to_string(id) + " is missing");
        }
        if (match->second != digest) {
            throw CheckFailed(std::string(kind) + " " + std::to_string(id) + " differs");
        }
    }
    for (const auto& [id, digest] : found) {
        if (!expected.contains(id)) {
            throw CheckFailed(std::string(kind) + " " + std::to_string(id) + " must not be there");
        }
    }
}

void runCheck(const CheckOptions& options) {
    const fs::path copy = fs::absolute(options.copy);
    const Status status = probeDatabase(copy);
    if (status == kNoSuchFile || status == kAccessDenied) {
        throw StatusError(status, copy.string());
    }
    if (status != kOk) {
        throw CheckFailed(StatusError(status, copy.string()).what());
    }
    DatabaseState state;
    try {
        Database database(copy, Connection::Mode::kReadOnly);
        state = readState(database, true);
        if (!options.objects.empty()) {
            const std::size_t references =
                checkObjects(database, {options.objects.begin(), options.objects.end()});
            std::cout << copy.string() << ": " << references << " attachments are there\n";
        }
    } catch (const StatusError& error) {
        throw CheckFailed(error.what());
    }
    if (state.integrity != "ok") {
        throw CheckFailed(copy.string() + ": integrity check failed: " + state.integrity);
    }
    if (options.manifest.empty()) {
        return;
    }
    const std::uint64_t commit = state.header.commit;
    if (!options.time.empty()) {
        const std::uint64_t last =
            lastCommitAt(options.manifest, options.database, parseMoment(options.time));
        if (commit != last) {
            throw CheckFailed(options.database + ": the copy is at commit " +
                              std::to_string(commit) + ", at " + options.time +
                              " the database was at " + std::to_string(last));
        }
    }
    const ManifestState expected = stateAfter(options.manifest, options.database, commit);
    compare("note", expected.notes, state.notes);
    compare("stub", expected.stubs, state.stubs);
    if (!options.server.empty()) {
        const Server server = useServer(options.server);
        const BackupRecord record =
            readBackupRecord(server, server.keyOf(server.resolve(options.database)));
        if (!record.stopCommit) {
            throw CheckFailed("no backup of " + options.database + " has been stopped");
        }
        if (*record.stopCommit != commit) {
            throw CheckFailed("the copy is at commit " + std::to_string(commit) +
                              ", the backup was stopped at " + std::to_string(*record.stopCommit));
        }
    }
    std::cout << options.database << ": exact at commit " << commit << ", " << state.notes.size()
              << " notes, " << state.stubs.size() << " stubs\n";
}

} // namespace

void addCheckCommand(CLI::App& app) {
    auto check = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check that a copy is sound and holds exactly what the manifest says for its own "
                 "commit number, or that the attachments of its notes are there; exits with 4 when "
                 "not");
    command->add_option("COPY", check->copy, "Copy of a database")->required();
    CLI::Option* database =
        command->add_option("--database", check->database, "Name of the database it is a copy of");
    CLI::Option* manifest =
        command->add_option("--manifest", check->manifest, "Manifest of the workload");
    manifest->needs(database);
    command->add_option("--objects", check->objects,
                        "Check that each attachment object that the notes refer to lies below one "
                        "of these folders, whole");
    command->add_option("--server", check->server,
                        "Also check that its commit number is that of the last NSFBackupStop");
    command->add_option("--at", check->time,
                        "Also check that its commit is the last one at or before this time: "
                        "\"YYYY-MM-DD hh:mm:ss[.CC]\", local, or @SECONDS[.CC] since 1970");
    command->callback([check] {
        if (check->manifest.empty() && check->objects.empty()) {
            throw CLI::RequiredError("--manifest, or --objects,");
        }
        runCheck(*check);
    });
}

} // namespace domino_sim
