// The transaction logs of a server that lists them only within an archiving session: a full backup
// begins none, an operation at incremental level does. It runs beside the full one, for the logs
// alone.
#pragma once

#include "client/module/session.h"

#include <functional>
#include <string>

namespace qrtln {

class LogSession {
  public:
    // Starts the module for `context`, with its run-time data and its copies in `folder`: the index
    // of database instances is the full backup's. Throws as ModuleSession does.
    LogSession(const OperationContext& context, const std::string& folder,
               ModuleSession::Observer on_log, ModuleSession::Observer on_trace);

    // Begins the archiving session and calls `store` with each item that `wanted` names, which
    // finishes it with session(); others are the full backup's. Returns whether the module handed
    // out everything; if not, session() has the reason. Throws what `store` does, and when a signal
    // came.
    bool take(const std::function<bool(const std::string& path)>& wanted,
              const std::function<void(const std::string& path)>& store);

    // Still open: its close with success marks the logs as archived.
    ModuleSession& session() { return m_session; }

  private:
    OperationContext m_context;
    ModuleSession m_session;
};

} // namespace qrtln
