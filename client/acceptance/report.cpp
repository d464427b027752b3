#include "client/acceptance/report.h"

#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fmt/format.h>

namespace qrtln::acceptance {

namespace {

using nlohmann::json;

constexpr std::array verdict_names = {"ok", "told", "stop"};
constexpr std::array step_names = {"without the server's library",
                                   "the library starts and ends",
                                   "names and times",
                                   "databases",
                                   "the transaction log",
                                   "the test database",
                                   "archiving one log",
                                   "a backup of the smallest database"};

const char* name_of(Verdict verdict) {
    return verdict_names.at(static_cast<std::size_t>(verdict));
}

const char* name_of(Step step) {
    return step_names.at(static_cast<std::size_t>(step) - 1);
}

json statuses_of(const Finding& finding) {
    json statuses = json::array();
    for (const auto& [call, status] : finding.statuses)
        statuses.push_back({{"call", call}, {"status", status}});
    return statuses;
}

std::string line_of(const Finding& finding) {
    std::string line = fmt::format("  [{}]", name_of(finding.verdict));
    line.resize(9, ' ');
    line += fmt::format("{}: {}", finding.name, for_terminal(finding.text));
    std::string separator = "  (";
    for (const auto& [call, status] : finding.statuses) {
        line += fmt::format("{}{} {}", separator, call, status);
        separator = ", ";
    }
    return line + (finding.statuses.empty() ? "\n" : ")\n");
}

} // namespace

json to_json(const Finding& finding) {
    return {{"step", static_cast<int>(finding.step)},
            {"step_name", name_of(finding.step)},
            {"name", finding.name},
            {"verdict", name_of(finding.verdict)},
            {"text", printable_utf8(finding.text)},
            {"statuses", statuses_of(finding)},
            {"incomplete", finding.incomplete}};
}

Finding finding_from_json(const json& object) {
    Finding finding;
    finding.step = static_cast<Step>(object.at("step").get<int>());
    finding.name = object.at("name");
    const std::string verdict = object.at("verdict");
    finding.verdict = verdict == verdict_names[0]   ? Verdict::ok
                      : verdict == verdict_names[1] ? Verdict::told
                                                    : Verdict::stop;
    finding.text = object.at("text");
    for (const json& status : object.at("statuses"))
        finding.statuses.emplace_back(status.at("call"), status.at("status"));
    finding.incomplete = object.at("incomplete");
    return finding;
}

Report::Report(std::string title, bool as_text) : m_title(std::move(title)), m_as_text(as_text) {
    if (m_as_text)
        print_output(m_title + "\n");
}

void Report::add(Finding finding) {
    if (m_as_text && finding.step != m_last_step)
        print_output(
            fmt::format("{}. {}\n", static_cast<int>(finding.step), name_of(finding.step)));
    if (m_as_text)
        print_output(line_of(finding));
    m_last_step = finding.step;
    m_stopped = m_stopped || finding.verdict == Verdict::stop;
    m_incomplete = m_incomplete || finding.incomplete;
    m_findings.push_back(std::move(finding));
}

void Report::add_at_interruption(const Finding& finding) {
    add(finding);
    if (!m_as_text)
        print_message(fmt::format("{}: {}", finding.name, for_terminal(finding.text)));
}

void Report::not_tried(const std::string& what, const std::string& why) {
    m_not_tried.emplace_back(what, why);
}

bool Report::mentions(const std::string& shown) const {
    return std::any_of(m_findings.begin(), m_findings.end(), [&](const Finding& finding) {
        std::size_t at =
            finding.verdict == Verdict::ok ? std::string::npos : finding.text.find(shown);
        // "database 1" is the beginning of "database 12".
        return at != std::string::npos &&
               std::isdigit(static_cast<unsigned char>(finding.text[at + shown.size()])) == 0;
    });
}

bool Report::found(const std::string& name) const {
    return std::any_of(m_findings.begin(), m_findings.end(),
                       [&](const Finding& finding) { return finding.name == name; });
}

void Report::end(int exit_code, const std::string& conclusion) const {
    if (m_as_text) {
        std::string text;
        for (const auto& [what, why] : m_not_tried)
            text += fmt::format("  {}: {}\n", what, why);
        print_output(
            fmt::format("{}{}\n", text.empty() ? text : "not tried:\n" + text, conclusion));
        return;
    }
    json findings = json::array();
    for (const Finding& finding : m_findings)
        findings.push_back(to_json(finding));
    json left_out = json::array();
    for (const auto& [what, why] : m_not_tried)
        left_out.push_back({{"what", what}, {"why", why}});
    print_json({{"command", "check"},
                {"title", m_title},
                {"exit_code", exit_code},
                {"status", m_stopped      ? "stopped"
                           : m_incomplete ? "incomplete"
                                          : "clean"},
                {"findings", findings},
                {"not_tried", left_out},
                {"conclusion", conclusion}});
}

} // namespace qrtln::acceptance
