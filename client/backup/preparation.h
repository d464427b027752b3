// Has the server make the copy of an item, and waits for databases that are busy.
#pragma once

#include "client/backup/run.h"

#include <string>

namespace qrtln {

// Prepares an item that the module handed out. Returns the file to read: its copy, or the item
// itself where none is needed; empty when there is none, and the item has the reason. A database is
// owed from before the preparation on. What the module told of the copy becomes the item's
// instance, warnings or reason. A second attempt at once ends what a killed run left on the server;
// what others do with the database there is waited for, as long as the run's time for that lasts.
std::string prepare_item(BackupRun& run, ManifestItem& item);

} // namespace qrtln
