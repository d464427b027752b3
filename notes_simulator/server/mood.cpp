#include "notes_simulator/server/mood.h"

#include <algorithm>

namespace notes_sim {

const std::vector<std::string>& moodNames() {
    static const std::vector<std::string> names = {"session", "ended",   "flags", "locale", "zone",
                                                   "before",  "foreign", "logs",  "slow"};
    return names;
}

std::optional<Moods> parseMoods(std::string_view text) {
    Moods moods;
    while (!text.empty()) {
        const std::string_view name = text.substr(0, text.find(','));
        text.remove_prefix(std::min(name.size() + 1, text.size()));
        const auto& names = moodNames();
        const auto found = std::find(names.begin(), names.end(), name);
        if (name != "all" && found == names.end()) {
            return std::nullopt;
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (name == "all" || names[i] == name) {
                moods.add(static_cast<Mood>(i));
            }
        }
    }
    return moods;
}

} // namespace notes_sim
