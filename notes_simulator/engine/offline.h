// Taking databases offline, so that their files can be replaced, and bringing them online again.
#pragma once

#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"

#include <chrono>
#include <filesystem>

namespace notes_sim {

/// Takes a database offline: from here on nobody can open it, until bringOnline. What killed
/// processes left of it, journal and backup context, is settled and removed first. One that is
/// offline already stays so. Throws StatusError, and the database stays online then: what
/// probeDatabase says; kDatabaseInUse when a process still has it open after the wait.
void takeOffline(const Server& server, const std::filesystem::path& file,
                 std::chrono::seconds wait);

/// Brings a database online, whatever file now lies in its place; one that is online stays so. A
/// logged database that is behind the log becomes a new instance (see adoptIntoLog). Throws
/// StatusError, and an offline database stays offline then: what probeDatabase says;
/// kDatabaseDamaged when the file is a database outside only.
void bringOnline(const Server& server, const std::filesystem::path& file);

/// Removes the journal and backup context of an offline database, whose file may have been
/// replaced: what belongs to the old file must not meet the new one. What a killed recovery left is
/// rolled back first, when the file is still the one it worked on.
void removeLeftovers(const Server& server, const std::filesystem::path& file,
                     const ServerLock& lock);

} // namespace notes_sim
