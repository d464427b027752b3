#include "client/ledger/timeline.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <set>
#include <utility>

namespace qrtln {

namespace {

constexpr int width = 1000; // in the units of the picture
constexpr int height = 20;

// A path of one kind; marks that fall on one place are drawn once.
class PathDrawing {
  public:
    explicit PathDrawing(const char* kind) : m_kind(kind) {}
    void line(int from, int until) {
        fmt::format_to(std::back_inserter(m_lines), "M{} {}h{}", from, height / 2,
                       std::max(until - from, 2));
    }
    void tick(int at, int from, int until) {
        if (m_ticks.insert({at, from}).second)
            fmt::format_to(std::back_inserter(m_lines), "M{} {}v{}", at, from, until - from);
    }
    std::string element() const {
        return m_lines.empty() ? "" : fmt::format("<path class=\"{}\" d=\"{}\"/>", m_kind, m_lines);
    }

  private:
    const char* m_kind;
    std::string m_lines;
    std::set<std::pair<int, int>> m_ticks;
};

std::string picture(const std::string& paths, const std::string& label) {
    return fmt::format("<svg viewBox=\"0 0 {} {}\" preserveAspectRatio=\"none\" role=\"img\" "
                       "aria-label=\"{}\">{}</svg>\n",
                       width, height, label, paths);
}

} // namespace

Timeline::Timeline(const ServerLedger& server, std::int64_t made) : m_begin(made), m_end(made) {
    for (const SetSummary& set : server.sets) {
        m_begin = std::min(m_begin, set.started);
        m_end = std::max(m_end, set.complete_at);
    }
}

int Timeline::place(std::int64_t time) const {
    if (m_end <= m_begin)
        return 0;
    const std::int64_t inside = std::clamp(time, m_begin, m_end) - m_begin;
    return static_cast<int>(inside * width / (m_end - m_begin));
}

std::string Timeline::of_server(const ServerLedger& server) const {
    PathDrawing ranges("r");
    PathDrawing gaps("g");
    PathDrawing sets("c");
    PathDrawing proofs("p");
    PathDrawing failures("f");
    std::int64_t from = 0; // of the logs that lead on from one another
    std::int64_t until = 0;
    for (const SetSummary& set : server.sets) {
        const bool is_full = set.level.starts_with("full");
        sets.tick(place(set.complete_at), is_full ? 0 : height / 4,
                  is_full ? height : height - height / 4);
        if (set.proof)
            (set.proof->failures.empty() ? proofs : failures)
                .tick(place(set.proof->time), 0, height);
        if (set.logs == "-")
            continue;
        const bool is_cut = std::any_of(
            server.log_gaps.begin(), server.log_gaps.end(), [&](const ServerLedger::Gap& gap) {
                return gap.before == set.complete_at && gap.after != gap.before;
            });
        if (from != 0 && is_cut)
            ranges.line(place(from), place(until));
        if (from == 0 || is_cut)
            from = set.complete_at;
        until = set.complete_at;
    }
    if (from != 0)
        ranges.line(place(from), place(until));
    for (const ServerLedger::Gap& gap : server.log_gaps)
        gaps.line(place(gap.after), place(gap.before));
    return picture(ranges.element() + gaps.element() + sets.element() + proofs.element() +
                       failures.element(),
                   "sets, logs and proofs");
}

std::string Timeline::of(const DatabaseLedger& database) const {
    PathDrawing ranges("r");
    PathDrawing gaps("g");
    PathDrawing copies("c");
    PathDrawing proof("p");
    PathDrawing failure("f");
    for (const Window& window : database.windows)
        if (window.any_moment)
            ranges.line(place(window.from), place(window.until));
    for (const CoverageGap& gap : database.gaps)
        gaps.line(place(gap.from), place(gap.until));
    for (std::int64_t copy : database.copies)
        copies.tick(place(copy), height / 4, height - height / 4);
    if (database.proof)
        (database.proof->proven ? proof : failure).tick(place(database.proof->time), 0, height);
    return picture(ranges.element() + gaps.element() + copies.element() + proof.element() +
                       failure.element(),
                   fmt::format("{} copies, {} gaps", database.copies.size(), database.gaps.size()));
}

} // namespace qrtln
