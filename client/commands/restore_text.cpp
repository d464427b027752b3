#include "client/commands/restore_text.h"

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

namespace qrtln {

namespace {

bool is_stuck(const WaitingCopy& waiting) {
    return !waiting.reason.empty();
}

// What keeps copies from their places, and what to do about it.
std::string waiting_text(const RestoreResult& result) {
    bool stuck = std::any_of(result.waiting.begin(), result.waiting.end(), is_stuck);
    bool half =
        std::any_of(result.waiting.begin(), result.waiting.end(), [](const WaitingCopy& waiting) {
            return is_stuck(waiting) && !waiting.untouched;
        });
    bool in_use = std::any_of(result.waiting.begin(), result.waiting.end(),
                              [](const WaitingCopy& waiting) { return waiting.in_use; });
    const std::string again =
        result.noted ? "run the\nsame command again: it uses what waits, and "
                       "removes it\n"
                     : fmt::format("run the\nsame command again; afterwards remove {}\n",
                                   for_terminal(result.kept_folder));
    if (half)
        return "until they are in place, the copies above may be the only whole ones: mend what "
               "is told (a full disk: make room), then " +
               again;
    if (stuck)
        return fmt::format("what waits was not put in place: {} {}",
                           in_use ? "shut down the task that uses it, or the server, then"
                                  : "when what is told above is mended,",
                           again);
    if (!result.waiting.empty())
        return fmt::format("nothing of the server was changed: the same command with --activate "
                           "puts these databases in\nplace; when {} is of no more use, remove it\n",
                           for_terminal(result.kept_folder));
    return {};
}

} // namespace

int exit_code_of(const RestoreResult& result) {
    if (!result.damaged.empty())
        return static_cast<int>(ExitCode::damage_found);
    bool stuck = std::any_of(result.waiting.begin(), result.waiting.end(), is_stuck);
    return static_cast<int>(stuck || !result.failed.empty() ? ExitCode::items_failed
                                                            : ExitCode::complete);
}

std::string restore_text(const RestoreResult& result) {
    std::string text =
        fmt::format("restored {} items, {} databases wait, {} written\n", result.restored.size(),
                    result.waiting.size(), human_bytes(result.bytes));
    for (const WaitingCopy& waiting : result.waiting)
        text += fmt::format("  {} waits as {}\n", for_terminal(waiting.path),
                            for_terminal(waiting.copy));
    for (const KeptReplaced& replaced : result.kept_replaced)
        text += fmt::format("  {} as it was is kept as {}: remove it when it is of no more use\n",
                            for_terminal(replaced.path), for_terminal(replaced.kept));
    text += waiting_text(result);
    if (!result.damaged.empty())
        text += std::to_string(result.damaged.size()) +
                " damaged in the store and not restored: `qrtln verify` tells more, an older set "
                "(--at) may have a\nwhole copy\n";
    if (!result.failed.empty())
        text += std::to_string(result.failed.size()) + " failed, see above\n";
    return text;
}

std::string taken_text(const RestorePlan& plan, const RestoreResult& result) {
    std::set<std::string> restored(result.restored.begin(), result.restored.end());
    std::set<std::string> sets;
    if (plan.to.empty())
        for (const PlannedItem& planned : plan.items)
            if (planned.item.kind == ItemKind::database && restored.contains(planned.target))
                sets.insert(planned.set);
    if (sets.empty())
        return {};
    std::string names;
    for (const std::string& set : sets)
        names += (names.empty() ? "" : ", ") + for_terminal(set);
    return fmt::format(
        "the databases in place are as in {}: what was changed since then is not in them,\n`qrtln "
        "recover` instead of restore rolls them forward with the transaction logs\n",
        names);
}

nlohmann::json restore_json(const RestoreResult& result) {
    nlohmann::json waiting = nlohmann::json::array();
    for (const WaitingCopy& copy : result.waiting)
        waiting.push_back({{"path", printable_utf8(copy.path)},
                           {"copy", printable_utf8(copy.copy)},
                           {"reason", printable_utf8(copy.reason)},
                           {"untouched", copy.untouched},
                           {"in_use", copy.in_use}});
    nlohmann::json kept = nlohmann::json::array();
    for (const KeptReplaced& replaced : result.kept_replaced)
        kept.push_back(
            {{"path", printable_utf8(replaced.path)}, {"kept", printable_utf8(replaced.kept)}});
    return {{"restored", printable_list(result.restored)},
            {"kept_replaced", kept},
            {"failed", failures_json(result.failed)},
            {"damaged", failures_json(result.damaged)},
            {"waiting", waiting},
            {"kept_folder", printable_utf8(result.kept_folder)},
            {"bytes", result.bytes},
            {"warnings", printable_list(result.warnings)}};
}

} // namespace qrtln
