// What the acceptance of a server found, for people and for scripts.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

namespace qrtln::acceptance {

enum class Step {
    without_library = 1,
    runtime,
    names_and_times,
    databases,
    log_style,
    test_database,
    logs,
    trial,
};

enum class Verdict {
    ok,   // as expected
    told, // not expected, and harmless to a backup of what it does not name
    stop, // no backup before it is understood
};

// The statuses that calls returned, as they came, flags included.
using Statuses = std::vector<std::pair<std::string, int>>;

struct Finding {
    Step step = Step::without_library;
    std::string name; // what docs/first-contact.md explains it under
    Verdict verdict = Verdict::ok;
    std::string text; // UTF-8
    Statuses statuses;
    bool incomplete = false; // a backup would lack something
};

nlohmann::json to_json(const Finding& finding);
// Throws std::exception for what is no finding.
Finding finding_from_json(const nlohmann::json& object);

// Takes findings in their order. With `as_text` each is written to standard output at once, so that
// a report that ends early has all that was found.
class Report {
  public:
    Report(std::string title, bool as_text);
    void add(Finding finding);
    // Likewise, where an interruption takes the end of the report away: what is not written at once
    // comes on standard error.
    void add_at_interruption(const Finding& finding);
    // Something that was left out, and why.
    void not_tried(const std::string& what, const std::string& why);

    // Whether a finding other than `ok` has this name of a database.
    bool mentions(const std::string& shown) const;
    bool found(const std::string& name) const; // a finding of this name
    bool stopped() const { return m_stopped; }
    bool incomplete() const { return m_incomplete; }
    bool found_by_library() const { return m_last_step != Step::without_library; }

    // Writes what comes after the findings: what was not tried and the conclusion, or all of it as
    // one JSON document. Throws ClientError when it cannot be written.
    void end(int exit_code, const std::string& conclusion) const;

  private:
    std::string m_title;
    bool m_as_text;
    std::vector<Finding> m_findings;
    std::vector<std::pair<std::string, std::string>> m_not_tried;
    Step m_last_step{}; // of none
    bool m_stopped = false;
    bool m_incomplete = false;
};

} // namespace qrtln::acceptance
