// The module in one restore: what is announced to it, where it wants that written, and what it
// told.
#pragma once

#include "client/module/session.h"
#include "client/module/told.h"
#include "client/restore/run.h"

#include <optional>
#include <string>
#include <string_view>

namespace qrtln {

class RestoreSession {
  public:
    // `run` must outlive this: the module's process uses its folders.
    explicit RestoreSession(RestoreRun& run)
        : m_run(run), m_session(
                          run.context, [this](const std::string& line) { read(line); },
                          [this](const std::string& line) { read_trace(line); }) {}

    // Starts the restore in the module. Throws ClientError(server_error) when it does not start.
    void start();

    // Announces an item. Returns the path to write to, or nothing with the failure noted.
    std::optional<std::string> announce(const PlannedItem& planned);
    // Announces a file that nothing is written to, of the live database's name and folder. Returns
    // where the module expects it; empty when it does not take it.
    std::string announce_nothing(const PlannedItem& planned);

    // Told since the last announcement: the live database was taken offline, or was not.
    bool took_it_offline() const { return m_taken; }
    bool left_it_alone() const { return m_not_taken; }
    // There was nothing that it could have been replaced by.
    void say_left_alone() { m_not_taken = true; }
    // Of the server's last failure.
    ServerStatus status() const { return m_status.value_or(ServerStatus{}); }

    // The item under way ends with success. Whether the module reports success, too.
    bool finish_item() { return m_session.finish(DB_ITEM_SUCCESS) == DB_NUM_I_OK; }
    // An item that is still under way ends as failed.
    void end_item() { m_session.finish_failed(); }
    std::string reason() { return m_session.reason(); }
    // An interrupt of this process, for the module's.
    void forward_interrupt() { m_session.host().forward_interrupt(); }
    bool close(bool good) { return m_session.close(good) == DB_NUM_I_OK; }
    void abandon() { m_session.abandon(); }

  private:
    void begin_announcement();
    void read(std::string_view line);
    void read_trace(const std::string& line);

    RestoreRun& m_run;
    std::optional<ServerStatus> m_status;
    bool m_not_taken = false;
    bool m_taken = false;
    ModuleSession m_session;
};

} // namespace qrtln
