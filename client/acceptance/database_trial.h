// The groups that write to one database, which an administrator made for that. What they begin on
// the server they end, also when a call fails; documents that they delete they bring back.
#pragma once

#include "client/acceptance/probe_request.h"
#include "client/acceptance/teller.h"

namespace qrtln::acceptance {

// A database with more documents is nobody's test database.
inline constexpr std::size_t most_test_documents = 1000;

// What each leaves in the folder of the request.
inline constexpr const char* quiet_copy = "quiet.nsf";
inline constexpr const char* busy_copy = "busy.nsf";
inline constexpr const char* recovered_copy = "recovered.nsf";

// A backup that is given up, and one that is completed, while nothing writes; the copy is opened
// and its documents compared with the live ones.
void trial_quiet_backup(Teller& teller, const ProbeRequest& request);

// A backup during which documents are deleted and brought back from the quiet copy. Tells whether
// the copy is as of the start or as of the stop.
void trial_busy_backup(Teller& teller, const ProbeRequest& request);

// A copy of the quiet copy is rolled forward to the end of the logs that are there, and has the
// documents of the live database then.
void trial_recovery(Teller& teller, const ProbeRequest& request);

// Offline, and online again.
void trial_offline(Teller& teller, const ProbeRequest& request);

} // namespace qrtln::acceptance
