// Calls that take their time, as the variable SimSlow of notes.ini says.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace notes_sim {

/// How long a call takes before it does anything.
using Slowness = std::chrono::milliseconds;
inline constexpr Slowness kForEver = Slowness::max();

/// Whether the text is a list such as "NSFBackupStart=2,NSFRecoverDatabases=never": functions with
/// seconds, or "never" for one that does not return. Empty is none.
bool isSlowness(std::string_view text);

/// The slowness of a call by such a list. By an empty one each tenth call of the process takes a
/// moment.
Slowness slownessOf(std::string_view text, std::string_view function);

/// Waits as long; never returns for kForEver.
void dawdle(Slowness slowness);

} // namespace notes_sim
