// Restored databases put in the places of the live ones by the server: checked, with what they
// replace kept if wanted, and what is told when the server does not let go.
#pragma once

#include "client/restore/planned_item.h"
#include "client/restore/restore_session.h"
#include "client/restore/run.h"
#include "client/restore/waiting_copies.h"

#include <optional>
#include <string>

namespace qrtln {

class Activation {
  public:
    // Both must outlive this. `waiting` are copies that earlier runs left, or nullptr.
    Activation(RestoreRun& run, RestoreSession& session, WaitingCopies* waiting)
        : m_run(run), m_session(session), m_waiting(waiting) {}

    // Moves the copy that an earlier run left of this content to the name in the folder, which is
    // open. Returns false when none waits.
    bool take_waiting(const PlannedItem& planned, int folder, const std::string& name);
    // Makes the folder of the live database, and refuses what the module would write through.
    // Returns why the item cannot be activated; empty when it can.
    std::string check_live_target(const PlannedItem& planned);
    // Keeps the live database beside its place, if there is one, once nobody writes to it any more.
    // Returns whether the activation may go on; else that is told in the result.
    bool keep_replaced(const PlannedItem& planned, const std::string& path);
    // Ends the item, whose copy is whole at `path`: it is in its place, or waits.
    void finish(const PlannedItem& planned, const std::string& path);

  private:
    bool take_offline(const PlannedItem& planned, std::string& problem);
    void bring_online(const PlannedItem& planned);
    void expect_death(const PlannedItem& planned, const std::string& path);
    void take_refusal(const PlannedItem& planned, const std::string& path);
    void tell_refusal(const PlannedItem& planned, const std::string& reason);
    void give_metadata_back(const PlannedItem& planned);
    void drop_waiting(const PlannedItem& planned);

    RestoreRun& m_run;
    RestoreSession& m_session;
    WaitingCopies* m_waiting;
};

} // namespace qrtln
