// The moods of a server: what a real one may do, and the simulator does only when it is told to.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace notes_sim {

/// What the variable SimStrict of notes.ini switches on, by name; notes_simulator.h says what each
/// does.
enum class Mood : std::uint8_t {
    kSession,
    kEnded,
    kFlags,
    kLocale,
    kZone,
    kBefore,
    kForeign,
    kLogs,
    kSlow,
};
inline constexpr std::size_t kMoodCount = 9;

/// The moods that are on.
class Moods {
  public:
    bool has(Mood mood) const { return m_on.test(static_cast<std::size_t>(mood)); }
    void add(Mood mood) { m_on.set(static_cast<std::size_t>(mood)); }

  private:
    std::bitset<kMoodCount> m_on;
};

/// The names, in the order of Mood: "session", "ended", ...
const std::vector<std::string>& moodNames();

/// Reads "session,flags" or "all"; nothing for a name that is none. An empty text is no mood.
std::optional<Moods> parseMoods(std::string_view text);

} // namespace notes_sim
