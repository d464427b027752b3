#include "client/commands/backup_text.h"

#include "client/backup/operation.h"
#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

std::string failed_items_hint(const Manifest& manifest) {
    const auto& items = manifest.items;
    auto failed = std::find_if(items.begin(), items.end(), [&](const ManifestItem& item) {
        return item.status == ItemStatus::failed && item.kind == ItemKind::database &&
               is_below(item.path, manifest.data_directory);
    });
    std::string hint = "see what failed above; run as a user who may read every file, have the "
                       "server repair or remove what is no database, then back up again: until "
                       "then the server keeps its logs";
    if (failed != items.end() && manifest.whole_system)
        hint += fmt::format("; a database that can never be saved holds up nothing with --exclude "
                            "'{}': it is tried each time all the same, and told",
                            for_terminal(path_below(failed->path, manifest.data_directory)));
    return hint + "; --exclude leaves out other files that may be lost";
}

} // namespace

int exit_code_of(const Manifest& manifest) {
    if (!manifest.log_gaps.empty())
        return static_cast<int>(ExitCode::logs_missing);
    return static_cast<int>(manifest.complete ? ExitCode::complete : ExitCode::items_failed);
}

std::string incomplete_hint(const Manifest& manifest, bool log_session, bool linear_logging) {
    const std::vector<ManifestItem>& items = manifest.items;
    if (linear_logging && manifest.level == "diff")
        return "the server has linear transaction logging (TRANSLOG_Style=2): take --level full "
               "instead of diff";
    if (std::any_of(items.begin(), items.end(),
                    [](const ManifestItem& item) { return item.path == log_phase_item; }))
        return "what is not named above is stored, the transaction logs stay on the server, which "
               "did not list them; " +
               std::string(manifest.level == "full" && !log_session
                               ? "if it lists them only within an archiving session, add "
                                 "--log-session: the set is then complete and a base of diff and "
                                 "incr; else look at its console"
                               : "look at its console and back up again");
    return failed_items_hint(manifest);
}

void report_gaps(const Manifest& manifest) {
    for (const LogGap& gap : manifest.log_gaps)
        print_error(describe(gap) + ": the server cannot be rolled forward past this",
                    &gap == &manifest.log_gaps.back()
                        ? "take a full backup now (`qrtln backup --level full`): it begins a new "
                          "chain; look for another program that archives or deletes logs"
                        : "");
}

std::string set_lines(const Manifest& manifest) {
    ManifestTotals sum = totals(manifest);
    std::string text = fmt::format(
        "set {}: {}\n  {} databases, {} items, {}, {} of it changed, {} new in the store, {}\n",
        manifest.set, status_text(manifest), sum.databases, sum.stored_items,
        human_bytes(sum.bytes), human_bytes(sum.changed_bytes.value_or(sum.bytes)),
        human_bytes(manifest.new_bytes), human_duration(manifest.ended - manifest.started));
    if (!manifest.base.empty())
        text += fmt::format("  builds on {}\n", manifest.base);
    if (sum.other_files > 0)
        text +=
            fmt::format("  {} of the items are other files and links than the module hands out\n",
                        sum.other_files);
    if (sum.attachment_objects > 0)
        text += fmt::format("  {} of the items are attachment objects\n", sum.attachment_objects);
    if (manifest.left_out.any())
        text += fmt::format("  {}\n", left_out_text(manifest.left_out));
    text += left_out_databases_text(manifest);
    if (std::string logs = log_range_text(manifest); logs != "-")
        text += fmt::format("  transaction logs {}\n", logs);
    if (sum.warnings > 0)
        text +=
            fmt::format("  {} warnings: `qrtln show {}` lists them\n", sum.warnings, manifest.set);
    if (sum.failed_items > 0)
        text += fmt::format("  {} failed: the server was told that this backup is not complete\n",
                            sum.failed_items);
    return text;
}

nlohmann::json set_summary(const Manifest& manifest) {
    ManifestTotals sum = totals(manifest);
    nlohmann::json failed = nlohmann::json::array();
    nlohmann::json left_out = nlohmann::json::array();
    nlohmann::json warnings = nlohmann::json::array();
    nlohmann::json gaps = nlohmann::json::array();
    for (const ManifestItem& item : manifest.items) {
        std::string path = printable_utf8(item.path);
        if (item.status != ItemStatus::stored)
            (item.status == ItemStatus::failed ? failed : left_out)
                .push_back({{"path", path}, {"reason", printable_utf8(item.reason)}});
        for (const std::string& warning : item.warnings)
            warnings.push_back({{"path", path}, {"warning", printable_utf8(warning)}});
    }
    for (const LogGap& gap : manifest.log_gaps)
        gaps.push_back(describe(gap));
    return {{"status", status_text(manifest)},
            {"set", manifest.set},
            {"level", manifest.level},
            {"base", manifest.base},
            {"started", utc_time(manifest.started)},
            {"ended", utc_time(complete_at(manifest))},
            {"databases", sum.databases},
            {"items", sum.stored_items},
            {"other_files", sum.other_files},
            {"attachment_objects", sum.attachment_objects},
            {"left_out", left_out_json(manifest.left_out)},
            {"left_out_databases", left_out},
            {"bytes", sum.bytes},
            {"changed_bytes", sum.changed_bytes.value_or(sum.bytes)},
            {"new_bytes", manifest.new_bytes},
            {"logs", log_range_json(manifest)},
            {"log_gaps", gaps},
            {"failed", failed},
            {"warnings", warnings}};
}

} // namespace qrtln
