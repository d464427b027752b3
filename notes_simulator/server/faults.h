// Faults that make calls of the C API fail, and the journal of all calls.
#pragma once

#include "notes_simulator/base/status.h"

#include <optional>
#include <string>
#include <string_view>

namespace notes_sim {

/// Replaces the faults, and counts calls and fired faults from zero again. The text is a list such
/// as "NSFBackupStart#2=3748,NSFDbOpen=513": a function, the number of the call that is to fail
/// (without one every call), and the status, decimal or 0x hexadecimal. Empty means no faults.
/// False when the text is not valid; nothing is changed then.
bool setFaults(std::string_view text);

/// Counts a call of a function; the status that it is to fail with, if a fault is due.
std::optional<Status> faultFor(std::string_view function);

unsigned faultsFired();

/// Reads NOTES_SIM_FAULTS at its first call in a process, and NOTES_SIM_JOURNAL at each. False
/// when NOTES_SIM_FAULTS is not valid, at every call until setFaults() replaces it.
bool readFaultEnvironment();

/// Appends a line to the journal, if one is kept.
void journalLine(const std::string& line);
/// Whether a journal is kept.
bool journalOn();
/// Appends how many faults have fired.
void journalSummary();

} // namespace notes_sim
