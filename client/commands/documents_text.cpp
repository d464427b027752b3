#include "client/commands/documents_text.h"

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace qrtln {

namespace {

struct OutcomeText {
    DocumentOutcome outcome;
    const char* name; // in JSON
    const char* text;
    bool failed; // counts as failed
};

constexpr std::array outcome_texts = {
    OutcomeText{DocumentOutcome::candidate, "candidate", "would come back", false},
    OutcomeText{DocumentOutcome::back_unread, "back_unread", "brought back, marked unread", false},
    OutcomeText{DocumentOutcome::back, "back", "brought back, but not marked unread", false},
    OutcomeText{DocumentOutcome::replaced, "replaced", "replaced by the set's version", false},
    OutcomeText{DocumentOutcome::unchanged, "unchanged",
                "left alone: not changed since then, or deleted", false},
    OutcomeText{DocumentOutcome::missing, "not_in_set", "not in the set", true},
    OutcomeText{DocumentOutcome::failed, "failed", "failed, left as it was", true},
    OutcomeText{DocumentOutcome::lost, "lost",
                "DELETED, and its copy could not be put in its place", true},
    OutcomeText{DocumentOutcome::not_reached, "not_reached", "not reached, left as it was", true},
    OutcomeText{DocumentOutcome::unknown, "unknown", "unknown: the server's library died at it",
                true},
};

const OutcomeText& text_of(DocumentOutcome outcome) {
    const auto* found =
        std::find_if(outcome_texts.begin(), outcome_texts.end(),
                     [&](const OutcomeText& entry) { return entry.outcome == outcome; });
    return found == outcome_texts.end() ? outcome_texts.back() : *found;
}

std::string time_range(const DocumentResult& document) {
    if (document.outcome != DocumentOutcome::candidate)
        return "";
    std::string text = utc_time(document.earliest);
    if (document.latest - document.earliest > 60)
        text += " to " + utc_time(document.latest);
    return text;
}

std::string documents_table(const DocumentsResult& result, const DocumentsTold& told) {
    std::vector<std::string> headings = {"NOTE ", "HEXADECIMAL", "RESULT"};
    if (told.dry_run)
        headings.insert(headings.begin() + 2, told.changed ? "CHANGED" : "DELETED");
    Table table(headings);
    for (const DocumentResult& document : result.documents) {
        std::string outcome = text_of(document.outcome).text;
        if (!document.reason.empty())
            outcome += ": " + for_terminal(document.reason);
        std::vector<std::string> row = {std::to_string(document.id), note_id_text(document.id),
                                        outcome};
        if (told.dry_run)
            row.insert(row.begin() + 2, time_range(document));
        table.add(std::move(row));
    }
    return table.text();
}

const char* kind_name(const DocumentsTold& told) {
    return told.changed ? "changed" : "deleted";
}

} // namespace

bool came_back(const DocumentResult& document) {
    return document.outcome == DocumentOutcome::back_unread ||
           document.outcome == DocumentOutcome::back ||
           document.outcome == DocumentOutcome::replaced ||
           document.outcome == DocumentOutcome::candidate;
}

int exit_code_of(const DocumentsResult& result) {
    if (result.failure)
        return result.failure->exit_code();
    bool failed = std::any_of(
        result.documents.begin(), result.documents.end(),
        [](const DocumentResult& document) { return text_of(document.outcome).failed; });
    return static_cast<int>(failed ? ExitCode::items_failed : ExitCode::complete);
}

std::string documents_text(const DocumentsResult& result, const DocumentsTold& told) {
    std::string what = fmt::format("{}, {} since {}, from the set {}", for_terminal(told.database),
                                   kind_name(told), utc_time(told.since), told.set);
    if (result.documents.empty())
        return fmt::format("nothing to do: the set has no document of {}\n", what);
    auto back = std::count_if(result.documents.begin(), result.documents.end(), came_back);
    return fmt::format("{}{} of {} documents {}: {}\n", documents_table(result, told), back,
                       result.documents.size(), told.dry_run ? "would come back" : "came back",
                       what);
}

nlohmann::json documents_json(const DocumentsResult& result, const DocumentsTold& told) {
    nlohmann::json documents = nlohmann::json::array();
    for (const DocumentResult& document : result.documents) {
        nlohmann::json entry = {{"id", document.id},
                                {"hexadecimal", note_id_text(document.id)},
                                {"outcome", text_of(document.outcome).name},
                                {"text", text_of(document.outcome).text}};
        if (!document.reason.empty())
            entry["reason"] = printable_utf8(document.reason);
        if (document.outcome == DocumentOutcome::candidate) {
            entry["earliest"] = utc_time(document.earliest);
            entry["before"] = utc_time(document.latest);
        }
        documents.push_back(std::move(entry));
    }
    nlohmann::json document = {{"command", "documents"},
                               {"kind", kind_name(told)},
                               {"dry_run", told.dry_run},
                               {"store", printable_utf8(told.store)},
                               {"database", printable_utf8(told.database)},
                               {"set", told.set},
                               {"since", utc_time(told.since)},
                               {"documents", documents},
                               {"warnings", printable_list(result.warnings)},
                               {"operations", result.operations},
                               {"exit_code", exit_code_of(result)}};
    if (result.failure)
        document["error"] = printable_utf8(result.failure->what());
    if (!told.bring_back.empty())
        document["bring_back"] = printable_utf8(told.bring_back);
    return document;
}

} // namespace qrtln
