// One restore operation of the module, along a plan.
//
// Every item is announced, written to a temporary name where the module said, checked against its
// hash, renamed, and only then finished: a damaged content never reaches a live database. One item
// is unfinished at a time.
#pragma once

#include "client/module/session.h"
#include "client/restore/open_store.h"
#include "client/restore/owing.h"
#include "client/restore/plan.h"
#include "client/restore/result.h"
#include "client/sets/owed.h"

namespace qrtln {

// Carries out the plan. Failures of items are in the result. Throws ClientError when the operation
// could not be started or went on no longer; copies that a failed activation left are then kept,
// and a message names them. A database that is put in place is written down in `owed` before that,
// as restored; where the list takes no more, a warning of the result says so.
RestoreResult run_restore_operation(const OperationContext& context, const RestorePlan& plan,
                                    OwedDatabases* owed = nullptr);

} // namespace qrtln
