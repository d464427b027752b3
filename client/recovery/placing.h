// Databases in their places: what the server cannot replace is set aside before, owner and mode
// come after, and what no log covers is put there from its set.
#pragma once

#include "client/module/session.h"
#include "client/recovery/journal_keeper.h"
#include "client/recovery/plan.h"
#include "client/recovery/report.h"

namespace qrtln {

// Renames each live file that the plan says is no database any more to NAME.damaged-TIME, and
// changes the plan: nothing is in its place then, and what comes gets its owner and mode. What
// cannot be renamed is told as a warning.
void set_destroyed_aside(RecoveryPlan& plan, RecoveryReport& report);

// Gives a database that was lost, and came into being as this user's, the owner and mode of its
// set. Failures are warnings.
void give_owner_and_mode(const RecoveryPlan& plan, const RecoveringDatabase& database,
                         const JournalKeeper& keeper, RecoveryReport& report);

// Puts each database that no log rolls forward in its place, as it is in its set; each is told of
// in the report. Throws ClientError when an operation of the module could not be carried out.
void put_only_its_set_in_place(const OperationContext& context, const RecoveryPlan& plan,
                               JournalKeeper& keeper, RecoveryReport& report);

} // namespace qrtln
