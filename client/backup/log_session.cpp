#include "client/backup/log_session.h"

#include "client/base/interrupt.h"
#include "client/module/control_variables.h"
#include "client/module/host.h"

#include <utility>

namespace qrtln {

namespace {

OperationContext with_runtime_directory(OperationContext context, const std::string& folder) {
    context.runtime_directory = folder;
    return context;
}

} // namespace

LogSession::LogSession(const OperationContext& context, const std::string& folder,
                       ModuleSession::Observer on_log, ModuleSession::Observer on_trace)
    : m_context(with_runtime_directory(context, folder)),
      m_session(m_context, std::move(on_log), std::move(on_trace)) {}

bool LogSession::take(const std::function<bool(const std::string& path)>& wanted,
                      const std::function<void(const std::string& path)>& store) {
    int status =
        m_session.init(DB_TYPE_BCK, DB_LEVEL_INCR,
                       {tmp_dir_variable(m_context.runtime_directory), whole_server_variable});
    while (status == DB_NUM_I_OK) {
        throw_if_interrupted();
        m_session.forget_reasons();
        ModuleItem next = m_session.host().get_item();
        status = next.status;
        if (status != DB_NUM_I_OK)
            break;
        m_session.item_begun();
        if (wanted(next.name))
            store(next.name);
        else
            (void)m_session.finish(DB_ITEM_EXCLUDED);
    }
    throw_if_interrupted();
    return status == DB_NUM_I_COMPLETE;
}

} // namespace qrtln
