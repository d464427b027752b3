#include "client/restore/restore_session.h"

#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/module/control_variables.h"
#include "client/module/host.h"

#include <fmt/format.h>
#include <vector>

namespace qrtln {

namespace {

// A folder of the server's that nothing is restored to.
constexpr const char* no_folder = "qrtln-nothing";

} // namespace

void RestoreSession::start() {
    const RestorePlan& plan = m_run.plan;
    std::vector<std::string> variables = {tmp_dir_variable(m_run.temporary_folder()),
                                          whole_server_variable};
    if (plan.activate)
        variables.emplace_back(activate_variable);
    if (!plan.to.empty())
        variables.push_back(relocation_variable(m_run.to.path(), plan.plain));
    const bool logs_alone = plan.kind == RestoreKind::logs;
    if (m_session.init(DB_TYPE_RST, logs_alone ? DB_LEVEL_INCR : DB_LEVEL_FULL,
                       std::move(variables)) != DB_NUM_I_OK)
        m_session.report_failed_start("restore", m_session.reason());
}

void RestoreSession::read(std::string_view line) {
    m_not_taken = m_not_taken || says_not_taken_offline(line);
}

void RestoreSession::read_trace(const std::string& line) {
    if (std::optional<ServerStatus> status = parse_server_status(line); status)
        m_status = m_not_taken ? m_status : status;
    m_taken = m_taken || says_taken_offline(line);
}

void RestoreSession::begin_announcement() {
    m_session.forget_reasons();
    m_status.reset();
    m_not_taken = m_taken = false;
}

std::optional<std::string> RestoreSession::announce(const PlannedItem& planned) {
    begin_announcement();
    bool folder = planned.item.kind == ItemKind::directory;
    const std::string announced = m_run.to.for_module(planned.announced);
    std::string directory = folder ? announced : folder_of(announced);
    ModuleItem answer = m_session.host().set_item(DB_ITEM_TYPE_DIRECTORY, directory);
    std::string path = answer.name;
    if (answer.status == DB_NUM_I_OK && !folder) {
        answer = m_session.host().set_item(DB_ITEM_TYPE_FILE, announced);
        path = answer.name;
        if (answer.status == DB_NUM_I_OK)
            m_session.item_begun();
    }
    if (answer.status != DB_NUM_I_OK) {
        m_run.fail(planned, "the module refused it: " + m_session.reason());
        return std::nullopt;
    }
    bool placed =
        planned.action == RestoreAction::activate || planned.action == RestoreAction::place;
    const std::string& temporary = m_run.temporary_folder();
    bool allowed = placed ? path != temporary && is_below(path, temporary) : path == announced;
    if (!allowed || !path_problem(path).empty()) {
        m_session.finish_failed();
        m_run.fail(planned, fmt::format("the module wants it written to {}, which is no place for "
                                        "it",
                                        printable_utf8(path)));
        return std::nullopt;
    }
    return placed ? path : planned.announced; // never written through a link
}

std::string RestoreSession::announce_nothing(const PlannedItem& planned) {
    begin_announcement();
    ModuleItem answer =
        m_session.host().set_item(DB_ITEM_TYPE_DIRECTORY, folder_of(planned.target));
    if (answer.status == DB_NUM_I_OK)
        answer = m_session.host().set_item(
            DB_ITEM_TYPE_FILE,
            fmt::format("{}/{}/{}", m_run.plan.data_directory, no_folder, name_of(planned.target)));
    if (answer.status != DB_NUM_I_OK)
        return {};
    m_session.item_begun();
    bool good = is_below(answer.name, m_run.temporary_folder()) &&
                path_problem(answer.name).empty() &&
                name_of(answer.name) == name_of(planned.target) && !exists(answer.name);
    if (!good)
        m_session.finish_failed();
    return good ? answer.name : std::string();
}

} // namespace qrtln
