#include "client/recovery/plan_text.h"

#include "client/base/output.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/restore/plan_text.h"
#include "client/sets/log_positions.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

std::string reach_text(const RecoveryPlan& plan, const RecoveringDatabase& database) {
    if (!database.only_its_set.empty())
        return "its set only: " + database.only_its_set;
    if (plan.logs.missing)
        return "no moment: transaction logs are missing";
    bool ends_early = plan.restores_log_folder();
    std::string end = plan.to          ? utc_time(*plan.to)
                      : !ends_early    ? "the end of the logs"
                      : plan.logs.ends ? "the end of the stored logs, " + utc_time(*plan.logs.ends)
                                       : "the end of the stored logs";
    return end + (database.doubt.empty() ? "" : ", perhaps: " + database.doubt);
}

std::string logs_text(const RecoveryLogs& logs, const ServerLogs& server, bool to_a_moment) {
    if (logs.missing) {
        const std::optional<std::int64_t>& reachable = logs.missing->reachable;
        return fmt::format(
            "{}{}\n", describe(*logs.missing),
            reachable ? "; the latest time that can be reached is " + utc_time(*reachable) : "");
    }
    if (!logs.any_stored)
        return "no set holds transaction logs: those that the server has are replayed\n";
    std::string text = fmt::format("transaction logs {} to {}{}, {} of them from the store, the "
                                   "others are on the server",
                                   logs.first, logs.last, to_a_moment ? "" : " and what follows",
                                   logs.restore.size());
    for (const StoredLog& log : logs.restore)
        text += fmt::format("\n  {} from {}", for_terminal(log_target(server, log)),
                            for_terminal(log.set));
    return text + "\n";
}

nlohmann::json logs_json(const RecoveryLogs& logs, const ServerLogs& server) {
    nlohmann::json restored = nlohmann::json::array();
    for (const StoredLog& log : logs.restore)
        restored.push_back({{"path", printable_utf8(log_target(server, log))},
                            {"number", log.item.log->number},
                            {"set", log.set}});
    nlohmann::json on_server = nlohmann::json::array();
    for (const auto& [number, time] : server.last_used)
        if (!LogPositions::precedes(number, logs.first) &&
            !LogPositions::precedes(logs.last, number))
            on_server.push_back(number);
    nlohmann::json missing;
    if (logs.missing) {
        missing = {{"text", describe(*logs.missing)}, {"reachable", nullptr}};
        if (logs.missing->reachable)
            missing["reachable"] = utc_time(*logs.missing->reachable);
    }
    return {{"first", logs.first},
            {"last", logs.last},
            {"restored", restored},
            {"on_server", on_server},
            {"missing", missing}};
}

} // namespace

std::string plan_text(const RecoveryPlan& plan) {
    Table table({"SIZE ", "SET", "DATABASE", "RECOVERED TO", "WRITTEN TO", "THERE NOW"});
    for (const RecoveringDatabase& database : plan.databases)
        table.add({human_bytes(database.planned.item.size), for_terminal(database.planned.set),
                   for_terminal(database.planned.item.path), reach_text(plan, database),
                   for_terminal(database.planned.target),
                   existing_text(database.planned) +
                       (database.set_aside ? ", no database any more: is set aside" : "") +
                       (database.holds_more ? ", although it holds what no set leads to" : "")});
    std::string text = table.text();
    for (const PlannedItem& planned : plan.refused)
        text += fmt::format("not recovered: {}: {}\n", for_terminal(planned.item.path),
                            for_terminal(planned.reason));
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            text += fmt::format("missing, comes back from {}: {}\n", for_terminal(planned.set),
                                for_terminal(planned.target));
    if (plan.rolls_forward())
        text += logs_text(plan.logs, plan.server_logs, plan.to.has_value());
    return text + room_text(plan.room);
}

nlohmann::json plan_json(const RecoveryPlan& plan) {
    nlohmann::json databases = nlohmann::json::array();
    for (const RecoveringDatabase& database : plan.databases) {
        nlohmann::json entry = {{"path", printable_utf8(database.planned.item.path)},
                                {"set", database.planned.set},
                                {"size", database.planned.item.size},
                                {"target", printable_utf8(database.planned.target)},
                                {"rolled_forward", database.only_its_set.empty()},
                                {"exists", database.planned.existing.has_value()},
                                {"used_by", printable_utf8(database.planned.used_by)}};
        if (!database.only_its_set.empty())
            entry["reason"] = database.only_its_set;
        if (!database.doubt.empty())
            entry["doubt"] = database.doubt;
        if (database.holds_more)
            entry["holds_more"] = true;
        if (database.set_aside)
            entry["set_aside"] = true;
        databases.push_back(std::move(entry));
    }
    nlohmann::json files = nlohmann::json::array();
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            files.push_back(
                {{"path", printable_utf8(planned.target)}, {"set", printable_utf8(planned.set)}});
    nlohmann::json refused = nlohmann::json::array();
    for (const PlannedItem& planned : plan.refused)
        refused.push_back({{"path", printable_utf8(planned.item.path)},
                           {"reason", printable_utf8(planned.reason)}});
    return {
        {"data_directory", printable_utf8(plan.data_directory)},
        {"to", plan.to ? nlohmann::json(utc_time(*plan.to)) : nlohmann::json()},
        {"into", plan.into.empty() ? nlohmann::json() : nlohmann::json(printable_utf8(plan.into))},
        {"new_dbiid", plan.new_dbiid},
        {"databases", databases},
        {"files", files},
        {"refused", refused},
        {"logs", logs_json(plan.logs, plan.server_logs)},
        {"room", room_json(plan.room)},
        {"warnings", plan.warnings}};
}

std::string later_recovery_text(const LaterRecovery& later) {
    return "a recovery of these databases needs: " +
           logs_text(later.logs, later.server_logs, false);
}

nlohmann::json later_recovery_json(const LaterRecovery& later) {
    return logs_json(later.logs, later.server_logs);
}

} // namespace qrtln
