#include "notes_simulator/server/slowness.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <thread>

namespace notes_sim {

namespace {

constexpr Slowness kMoment{5};
constexpr unsigned kOneIn = 10;

/// The slowness in an entry "NSFBackupStart=2"; nothing when it is none.
std::optional<Slowness> parseEntry(std::string_view entry) {
    const auto equals = entry.find('=');
    if (equals == 0 || equals == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view value = entry.substr(equals + 1);
    if (value == "never") {
        return kForEver;
    }
    unsigned seconds = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    if (error != std::errc() || end != value.data() + value.size()) {
        return std::nullopt;
    }
    return std::chrono::seconds(seconds);
}

std::string_view takeEntry(std::string_view& text) {
    const std::string_view entry = text.substr(0, text.find(','));
    text.remove_prefix(std::min(entry.size() + 1, text.size()));
    return entry;
}

} // namespace

bool isSlowness(std::string_view text) {
    while (!text.empty()) {
        if (!parseEntry(takeEntry(text))) {
            return false;
        }
    }
    return true;
}

Slowness slownessOf(std::string_view text, std::string_view function) {
    static unsigned calls = 0; // guarded by the lock of the process's calls
    if (text.empty()) {
        return ++calls % kOneIn == 0 ? kMoment : Slowness::zero();
    }
    while (!text.empty()) {
        const std::string_view entry = takeEntry(text);
        if (entry.substr(0, entry.find('=')) == function) {
            return parseEntry(entry).value_or(Slowness::zero());
        }
    }
    return Slowness::zero();
}

void dawdle(Slowness slowness) {
    while (slowness == kForEver) {
        ::pause();
    }
    std::this_thread::sleep_for(slowness);
}

} // namespace notes_sim
