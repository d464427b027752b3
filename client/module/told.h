// What the module tells in its protocol and its trace alone. Every text of the module that the
// client reads stands in these files and nowhere else.
#pragma once

#include "client/module/told_backup.h"    // which items changed, what was copied, the index
#include "client/module/told_documents.h" // the documents of a restore, one by one
#include "client/module/told_instance.h"  // which instance (DBIID) a database is
#include "client/module/told_logs.h"      // transaction logs, and whether the server marked them
#include "client/module/told_restore.h"   // databases taken offline, and rolled forward
#include "client/module/told_server.h"    // the server's library and its failures
