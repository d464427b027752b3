#include "client/recovery/restored_copies.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/recovery/restores.h"
#include "client/restore/operation.h"
#include "client/sets/item_content.h"
#include "client/store/file_digest.h"

#include <fmt/format.h>
#include <vector>

namespace qrtln {

bool RestoredCopies::check_logs(const RecoveryLogs& logs) {
    if (logs.missing)
        return true;
    std::vector<StoredLog> needed = logs.restore;
    if (logs.control)
        needed.push_back(*logs.control);
    bool whole = true;
    for (const StoredLog& log : needed) {
        if (m_checked_logs.contains(log.item.object))
            continue;
        ObjectCheck check =
            m_context.store.read_object(log.item.object, [](Bytes) { throw_if_interrupted(); });
        if (check.problem.empty() && check.size == log.item.size) {
            m_checked_logs.insert(log.item.object);
            continue;
        }
        print_message(fmt::format("damaged: {} in the set {}: its object {} {}",
                                  for_terminal(log.item.path), for_terminal(log.set),
                                  log.item.object,
                                  check.problem.empty() ? "has another size" : check.problem));
        m_damaged.insert({log.item.path, log.item.object});
        whole = false;
    }
    return whole;
}

void RestoredCopies::find_whole(const RecoveryPlan& plan) {
    if (m_keeper.journal().pending_folder.empty())
        return;
    for (const RecoveringDatabase& database : plan.databases) {
        const ManifestItem& item = database.planned.item;
        auto known = m_whole.find(item.path);
        if (known != m_whole.end() && known->second == item.object)
            continue;
        m_whole.erase(item.path);
        if (database.only_its_set.empty() &&
            file_has_content(m_keeper.copy_of(plan, database), item.object, throw_if_interrupted))
            m_whole[item.path] = item.object;
    }
}

bool RestoredCopies::restore(RecoveryPlan& plan) {
    if (!check_only_its_set(plan))
        return false;
    RestorePlan copies = plan_copies(plan, m_keeper.journal().pending_folder, m_whole);
    if (!take_result(run_restore_operation(m_context, copies), copies, plan))
        return false;
    RestorePlan extents = plan_extents(plan);
    return take_result(run_restore_operation(m_context, extents), extents, plan);
}

// What is put in place last, from the store, is read once before anything is touched.
bool RestoredCopies::check_only_its_set(const RecoveryPlan& plan) {
    bool whole = true;
    if (!plan.in_place())
        return whole;
    for (const RecoveringDatabase& database : plan.databases) {
        if (database.only_its_set.empty())
            continue;
        const PlannedItem& planned = database.planned;
        ObjectCheck check =
            read_item(m_context.store, planned.item, [](Bytes) { throw_if_interrupted(); });
        if (check.problem.empty())
            continue;
        note_damage(planned, fmt::format("its object {} {}", planned.item.object, check.problem));
        whole = false;
    }
    return whole;
}

void RestoredCopies::note_damage(const PlannedItem& planned, const std::string& reason) {
    m_damaged.insert({planned.item.path, planned.item.object});
    m_reasons[planned.item.path] = reason;
}

bool RestoredCopies::take_result(const RestoreResult& result, const RestorePlan& restored,
                                 RecoveryPlan& plan) {
    m_report.result().bytes += result.bytes;
    m_report.warn(result.warnings);
    std::map<std::string, const PlannedItem*> planned;
    for (const PlannedItem& item : restored.items)
        planned[item.item.path] = &item;
    for (const WaitingCopy& waiting : result.waiting)
        m_whole[waiting.path] = planned.at(waiting.path)->item.object;
    for (const FailedRestore& damaged : result.damaged)
        note_damage(*planned.at(damaged.path), damaged.reason);
    take_failures(result, planned, plan);
    std::set<std::string> databases; // these have an outcome of their own
    for (const RecoveringDatabase& database : plan.databases)
        databases.insert(database.planned.target);
    for (const std::string& target : result.restored)
        if (!databases.contains(target))
            m_report.result().restored.push_back(target);
    return result.damaged.empty();
}

void RestoredCopies::take_failures(const RestoreResult& result,
                                   const std::map<std::string, const PlannedItem*>& planned,
                                   RecoveryPlan& plan) {
    std::map<std::string, std::string> databases; // by path: why they failed
    for (const auto& [path, reason] : result.failed) {
        const PlannedItem& item = *planned.at(path);
        if (item.item.log)
            throw ClientError(ExitCode::failed,
                              fmt::format("cannot put the transaction log {} back: {}",
                                          for_terminal(item.target), for_terminal(reason)),
                              "run the same command again when that is mended: what is restored "
                              "so far is kept");
        if (item.item.kind == ItemKind::database)
            databases[path] = reason;
        else
            m_report.result().failed.push_back({path, reason});
    }
    std::erase_if(plan.databases, [&](const RecoveringDatabase& database) {
        auto failed = databases.find(database.planned.item.path);
        if (failed == databases.end())
            return false;
        m_report.tell(database, RecoveryOutcome::failed, failed->second);
        return true;
    });
}

void RestoredCopies::tell_damage(const RecoveryPlan& plan) {
    std::map<std::string, std::string> sets; // by path: where what came back is from
    for (const RecoveringDatabase& database : plan.databases)
        sets[database.planned.item.path] = database.planned.set;
    for (const PlannedItem& planned : plan.others.items)
        sets[planned.item.path] = planned.set;
    for (const auto& [path, reason] : m_reasons) {
        auto no_older = plan.no_whole_copy.find(path);
        if (sets.contains(path))
            m_report.result().replaced.push_back(
                {path, fmt::format("{}; the copy of the set {} was taken", reason, sets[path])});
        else if (!m_report.has_told_of(path))
            m_report.result().damaged.push_back(
                {path,
                 fmt::format("{}; {}", reason,
                             no_older == plan.no_whole_copy.end() ? "no other set has it whole"
                                                                  : no_older->second)});
    }
}

} // namespace qrtln
