#include "client/acceptance/backup_trial.h"

#include "client/base/child_program.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"

#include <fmt/format.h>

namespace qrtln::acceptance {

namespace {

using nlohmann::json;

// This program, and the last line that it printed; null where that is none.
json run_command(int& exit_code, std::vector<std::string> words, const BackupTrial& trial) {
    words.insert(words.begin(), "qrtln");
    words.insert(words.end(),
                 {"--notes-ini", trial.notes_ini, "--store", trial.folder + "/store", "--tmp-dir",
                  trial.folder, "--progress", "never", "--config", "/dev/null", "--json"});
    words.insert(words.end(), trial.more.begin(), trial.more.end());
    const ProgramResult result = run_program("/proc/self/exe", words, "QRTLN_"); // all is said
    throw_if_interrupted();
    exit_code = result.exit_code;
    const std::string& text = result.output;
    const std::size_t end = text.empty() ? 0 : text.size() - 1;
    const std::size_t before = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
    json line =
        json::parse(text.substr(before == std::string::npos ? 0 : before + 1), nullptr, false);
    return line.is_object() ? line : json::object();
}

std::string ended(int exit_code) {
    return exit_code < 0 ? fmt::format("was ended by signal {}", -exit_code)
                         : fmt::format("ended with exit code {}", exit_code);
}

// What went wrong, as the command tells it.
std::string reason_of(const json& line) {
    if (line.contains("message"))
        return line.value("message", "");
    for (const char* list : {"failed_items", "failures"})
        if (line.contains(list) && line[list].is_array() && !line[list].empty())
            return line[list][0].value("reason", "");
    return line.value("status", "");
}

} // namespace

void try_backup(Report& report, const BackupTrial& trial) {
    auto tell = [&](Verdict verdict, const std::string& text) {
        report.add({Step::trial, "trial", verdict, printable_utf8(text), {}, false});
    };
    int code = 0;
    const json saved =
        run_command(code, {"backup", "--level", "copy", "--busy-wait", "0", trial.database}, trial);
    if (code != 0)
        return tell(Verdict::stop, fmt::format("a backup of {} at copy level {}: {}", trial.shown,
                                               ended(code), reason_of(saved)));
    const json proven = run_command(code, {"prove", "latest"}, trial);
    if (code != 0)
        return tell(Verdict::stop,
                    fmt::format("{} was saved, but its recovery into another folder {}: {}",
                                trial.shown, ended(code), reason_of(proven)));
    tell(Verdict::ok,
         fmt::format("{}, the smallest database, was saved at copy level ({}), brought "
                     "back in another folder and read by the server's library; "
                     "nothing of that is kept",
                     trial.shown, human_bytes(saved.value("bytes", std::uint64_t{0}))));
}

} // namespace qrtln::acceptance
