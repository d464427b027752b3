#include "notes_simulator/domino_sim/content.h"

#include <array>

namespace domino_sim {

namespace {

constexpr std::array kWords = {
    "meeting", "agenda",   "budget",   "contract", "delivery", "invoice",  "minutes", "offer",
    "order",   "plan",     "proposal", "quarter",  "reminder", "report",   "request", "review",
    "sample",  "schedule", "summary",  "travel",   "update",   "warranty", "the",     "for",
    "with",    "about",    "please",   "tomorrow", "attached", "confirm",  "regards", "office"};

constexpr std::size_t kShortestBody = 200;
constexpr std::size_t kUsualBody = 3000;
constexpr std::size_t kLongestBody = 20 * 1024;
constexpr std::uint64_t kOneInLong = 8;

} // namespace

std::string ContentGenerator::words(std::size_t length) {
    std::string text;
    text.reserve(length + 16);
    while (text.size() < length) {
        text += kWords[below(kWords.size())];
        text += ' ';
    }
    text.resize(length);
    return text;
}

notes_sim::NoteChange ContentGenerator::newNote() {
    notes_sim::NoteChange change;
    change.note.subject = words(10 + below(40));
    const std::size_t longest = below(kOneInLong) == 0 ? kLongestBody : kUsualBody;
    const std::string body = words(kShortestBody + below(longest - kShortestBody));
    change.note.body.assign(body.begin(), body.end());
    return change;
}

} // namespace domino_sim
