#include "client/recovery_plan.h"

#include "client/catalogue.h"
#include "client/error.h"
#include "client/output.h"
#include "client/text.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <sys/stat.h>

namespace qrtln {

namespace {

// What the module answers when it prepares a database that no transaction log covers.
constexpr int prepared_not_logged = 2000;

class RecoveryPlanner {
  public:
    RecoveryPlanner(Store& store, const NotesIni& ini, const RecoveryRequest& request)
        : m_store(store), m_ini(ini), m_request(request) {}
    RecoveryPlan run();

  private:
    RestorePlan plan_items();
    void take_database(PlannedItem planned);
    const CatalogueEntry& set(const std::string& name);
    void plan_logs();

    Store& m_store;
    const NotesIni& m_ini;
    const RecoveryRequest& m_request;
    StoredLogs m_stored;
    std::map<std::string, CatalogueEntry> m_sets;
    RecoveryPlan m_plan;
};

RecoveryPlan RecoveryPlanner::run() {
    m_plan.data_directory = m_ini.data_directory;
    struct stat status {};
    m_plan.data_directory_missing = ::stat(m_ini.data_directory.c_str(), &status) != 0;
    m_plan.to = m_request.to;
    m_plan.new_dbiid = m_request.new_dbiid;
    m_stored = load_stored_logs(m_store, m_ini.data_directory, m_request.selection.damaged);

    RestorePlan items = plan_items();
    m_plan.into = items.to;
    m_plan.warnings = std::move(items.warnings);
    m_plan.others = items;
    m_plan.others.items.clear();
    for (PlannedItem& planned : items.items) {
        bool log = planned.item.kind == ItemKind::log || planned.item.kind == ItemKind::log_control;
        if (log || (m_request.databases_only && planned.item.kind != ItemKind::database))
            continue;
        if (planned.action == RestoreAction::refuse)
            m_plan.refused.push_back(std::move(planned));
        else if (planned.item.kind == ItemKind::database)
            take_database(std::move(planned));
        else
            m_plan.others.items.push_back(std::move(planned));
    }
    plan_logs();
    m_plan.room = recovery_room(m_plan, m_request.tmp_dir, {});
    return std::move(m_plan);
}

// A database must have been saved before the time that it is to be recovered to.
RestorePlan RecoveryPlanner::plan_items() {
    RestoreRequest request;
    request.selection = m_request.selection;
    request.selection.ended_before = m_request.to;
    request.to = m_request.into;
    request.recovery = true;
    request.tmp_dir = m_request.tmp_dir;
    return make_restore_plan(m_store, m_ini, request);
}

const CatalogueEntry& RecoveryPlanner::set(const std::string& name) {
    auto [entry, added] = m_sets.try_emplace(name);
    if (added)
        entry->second = load_set(m_store, name);
    return entry->second;
}

void RecoveryPlanner::take_database(PlannedItem planned) {
    RecoveringDatabase database;
    if (const std::optional<Manifest>& manifest = set(planned.set).manifest) {
        database.set_started = manifest->started;
        database.set_ended = manifest->ended;
    }
    std::string newest_id = m_stored.logs.empty() ? "" : m_stored.logs.back().item.log->archive_id;
    if (planned.item.prepare_status == prepared_not_logged)
        database.only_its_set = not_logged_reason;
    else if (archive_id_at(m_stored, planned.set) != newest_id)
        database.only_its_set = "the server began a new transaction log after its backup";
    database.planned = std::move(planned);
    m_plan.databases.push_back(std::move(database));
}

void RecoveryPlanner::plan_logs() {
    m_plan.server_logs = look_at_server_logs(log_directory(m_ini));
    RecoveryLogNeeds needs;
    needs.to = m_request.to;
    for (const RecoveringDatabase& database : m_plan.databases)
        if (database.only_its_set.empty() &&
            (needs.oldest_set.empty() || database.planned.set < needs.oldest_set))
            needs.oldest_set = database.planned.set;
    if (needs.oldest_set.empty())
        return;
    if (m_plan.server_logs.directory.empty() && !m_stored.logs.empty())
        m_plan.server_logs = look_at_server_logs(folder_of(m_stored.logs.back().item.path));
    m_plan.logs = find_recovery_logs(m_stored, m_plan.server_logs, needs);
    if (m_plan.server_logs.missing && !m_plan.logs.missing && !m_plan.logs.restore.empty())
        m_plan.warnings.push_back(
            "the folder of the transaction logs, " + for_terminal(m_plan.server_logs.directory) +
            ", is lost: what was committed after the newest set is not in any log" +
            (m_plan.logs.ends ? " (that is after " + utc_time(*m_plan.logs.ends) + ")" : ""));
}

std::string local_time_text(std::int64_t time) {
    std::time_t value = time;
    std::tm local{};
    std::array<char, 32> text{};
    if (::localtime_r(&value, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local) == 0)
        return utc_time(time);
    return text.data();
}

std::string reach_text(const RecoveryPlan& plan, const RecoveringDatabase& database) {
    if (!database.only_its_set.empty())
        return "its set only: " + database.only_its_set;
    return plan.to ? utc_time(*plan.to) : "the end of the logs";
}

std::string logs_text(const RecoveryPlan& plan) {
    const RecoveryLogs& logs = plan.logs;
    if (logs.missing)
        return describe(*logs.missing) + "\n";
    if (logs.archive_id.empty())
        return "no set holds transaction logs: those that the server has are replayed\n";
    std::string text = "transaction logs " + std::to_string(logs.first) + " to " +
                       std::to_string(logs.last) + (plan.to ? "" : " and what follows") + ", " +
                       std::to_string(logs.restore.size()) + " of them from the store";
    for (const StoredLog& log : logs.restore)
        text += "\n  " + for_terminal(log_target(plan, log)) + " from " + for_terminal(log.set);
    return text + "\n";
}

} // namespace

// Copies and originals are there at the same time, and so are the logs.
std::vector<RoomNeeded> recovery_room(const RecoveryPlan& plan, const std::string& tmp_dir,
                                      const std::map<std::string, std::string>& whole) {
    RoomCount rooms;
    for (const RecoveringDatabase& database : plan.databases) {
        const PlannedItem& planned = database.planned;
        auto old = planned.existing ? static_cast<std::uint64_t>(planned.existing->st_size) : 0;
        std::uint64_t growth = planned.item.size > old ? planned.item.size - old : 0;
        bool waits = whole.contains(planned.item.path);
        if (plan.into.empty())
            rooms.at(absolute_path(tmp_dir)).needed += waits ? 0 : planned.item.size;
        rooms.at(folder_of(planned.target)).needed += growth;
    }
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            rooms.at(folder_of(planned.target)).needed += planned.item.size;
    for (const StoredLog& log : plan.logs.restore)
        rooms.at(folder_of(log_target(plan, log))).needed += log.item.size;
    return rooms.list();
}

std::string log_target(const RecoveryPlan& plan, const StoredLog& log) {
    return plan.server_logs.directory + "/" + name_of(log.item.path);
}

void require_logs(const RecoveryPlan& plan) {
    if (!plan.logs.missing)
        return;
    const MissingLogs& missing = *plan.logs.missing;
    std::string reachable;
    std::string hint;
    if (!missing.reason.empty())
        hint = "if the folder of the logs was lost and the server began a new log: shut the server "
               "down, move that folder away, and run the same command; it then comes back from the "
               "store";
    else if (missing.reachable) {
        std::string time = local_time_text(*missing.reachable);
        reachable = "; the latest time that can be reached is " + time;
        hint =
            "--to \"" + time + "\" recovers to that time; `qrtln verify` tells about damaged logs";
    } else {
        hint = "the databases can be restored as they are in their sets: `qrtln restore "
               "--activate`; `qrtln verify` tells about damaged logs";
    }
    throw ClientError(ExitCode::logs_missing,
                      "cannot recover: " + describe(missing) + reachable + ": nothing was touched",
                      hint);
}

std::string rollforward_value(const std::optional<std::int64_t>& to) {
    if (!to)
        return "YES";
    std::time_t time = *to;
    std::tm local{};
    std::array<char, 32> text{};
    if (::localtime_r(&time, &local) == nullptr || local.tm_year < -900 || local.tm_year > 8099 ||
        std::strftime(text.data(), text.size(), "%Y%m%d%H%M%S", &local) == 0)
        throw ClientError(ExitCode::usage, "--to: the time has no date of four-digit year");
    for (int summer : {0, 1}) {
        std::tm copy = local;
        copy.tm_isdst = summer;
        std::time_t other = ::mktime(&copy);
        std::tm back{};
        if (other != time && ::localtime_r(&other, &back) != nullptr &&
            back.tm_hour == local.tm_hour && back.tm_min == local.tm_min &&
            back.tm_mday == local.tm_mday)
            throw ClientError(ExitCode::usage,
                              "--to: the clock shows " + local_time_text(time) +
                                  " twice that day, and the server is told local time",
                              "take a time before or after that hour, or run with TZ=UTC");
    }
    return text.data();
}

std::string plan_text(const RecoveryPlan& plan) {
    Table table({"SIZE ", "SET", "DATABASE", "RECOVERED TO", "WRITTEN TO", "THERE NOW"});
    for (const RecoveringDatabase& database : plan.databases)
        table.add({human_bytes(database.planned.item.size), for_terminal(database.planned.set),
                   for_terminal(database.planned.item.path), reach_text(plan, database),
                   for_terminal(database.planned.target), existing_text(database.planned)});
    std::string text = table.text();
    for (const PlannedItem& planned : plan.refused)
        text += "not recovered: " + for_terminal(planned.item.path) + ": " + planned.reason + "\n";
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            text += "missing, comes back from " + for_terminal(planned.set) + ": " +
                    for_terminal(planned.target) + "\n";
    return text + logs_text(plan) + room_text(plan.room);
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
    nlohmann::json logs = nlohmann::json::array();
    for (const StoredLog& log : plan.logs.restore)
        logs.push_back({{"path", printable_utf8(log_target(plan, log))},
                        {"number", log.item.log->number},
                        {"set", log.set}});
    nlohmann::json missing;
    if (plan.logs.missing) {
        missing = {{"text", describe(*plan.logs.missing)}, {"reachable", nullptr}};
        if (plan.logs.missing->reachable)
            missing["reachable"] = utc_time(*plan.logs.missing->reachable);
    }
    return {
        {"data_directory", printable_utf8(plan.data_directory)},
        {"to", plan.to ? nlohmann::json(utc_time(*plan.to)) : nlohmann::json()},
        {"into", plan.into.empty() ? nlohmann::json() : nlohmann::json(printable_utf8(plan.into))},
        {"new_dbiid", plan.new_dbiid},
        {"databases", databases},
        {"files", files},
        {"refused", refused},
        {"logs",
         {{"first", plan.logs.first},
          {"last", plan.logs.last},
          {"restored", logs},
          {"missing", missing}}},
        {"room", room_json(plan.room)},
        {"warnings", plan.warnings}};
}

RecoveryPlan make_recovery_plan(Store& store, const NotesIni& ini, const RecoveryRequest& request) {
    return RecoveryPlanner(store, ini, request).run();
}

} // namespace qrtln
