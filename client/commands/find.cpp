// `qrtln find PATTERN…`: which sets have a database or another item.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/commands/set_reading.h"
#include "client/sets/known_damage.h"
#include "client/sets/manifest.h"
#include "client/sets/name_pattern.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <tuple>

namespace qrtln {

namespace {

constexpr const char* find_help =
    R"(Find databases and other items in the sets: which sets have them, the newest first.
PATTERN is a name or a path with *, ? and […], in capitals or not. Without "/" it is looked for
anywhere below the data directory, with one it is a path below that, with one in front a full path;
what matches a folder holds for all below it.
DBIID is shown where it is another than in the copy before. STATE is
  stored   as far as is known; `qrtln verify` tells for sure
  damaged  the content is known to be damaged in the store, or is missing
  failed   it was not saved in that set, nor was what is "left out"; the reason is shown)";

struct FindOptions : StoreOptions {
    std::vector<std::string> patterns;
    SetFilterOptions filter;
};

enum class CopyState { stored, damaged, not_known, failed, left_out };

const char* copy_state_name(CopyState state) {
    switch (state) {
    case CopyState::stored:
        return "stored";
    case CopyState::damaged:
        return "damaged";
    case CopyState::not_known:
        return "no permission";
    case CopyState::failed:
        return "failed";
    case CopyState::left_out:
        return "left out";
    }
    return "";
}

// One item of one set.
struct FoundCopy {
    std::string set;
    std::string level;
    ItemKind kind = ItemKind::file;
    CopyState state = CopyState::stored;
    std::string reason; // why it failed
    bool has_content = false;
    std::uint64_t size = 0;  // plain bytes
    std::int64_t copied = 0; // when its content was complete; 0: it has none
    std::string dbiid;
};

class Search {
  public:
    Search(Store& store, const FindOptions& options)
        : m_store(store), m_options(options), m_reading(store), m_filter(options.filter) {
        for (const std::string& pattern : options.patterns)
            m_patterns.emplace_back(pattern);
    }
    int run();

  private:
    // What is one item through all sets: of one server, below its data directory wherever that
    // was.
    using Place = std::tuple<std::string, std::string>; // path as a person names it, server

    void look_at(const Manifest& manifest);
    FoundCopy describe_copy(const Manifest& manifest, const ManifestItem& item);
    CopyState state_of(const ManifestItem& item);
    std::string text() const;
    nlohmann::json json() const;
    void require_found() const;

    Store& m_store;
    const FindOptions& m_options;
    SetReading m_reading;
    SetFilter m_filter;
    std::vector<NamePattern> m_patterns;
    std::optional<KnownDamage> m_damage;
    std::map<Place, std::vector<FoundCopy>> m_found; // the newest copy first
};

CopyState Search::state_of(const ManifestItem& item) {
    if (item.status != ItemStatus::stored)
        return item.status == ItemStatus::failed ? CopyState::failed : CopyState::left_out;
    if (item.object.empty())
        return CopyState::stored;
    CopyState state = CopyState::not_known;
    (void)m_reading.permitted([&] {
        if (!m_damage)
            m_damage.emplace(m_store);
        state = m_damage->has(item) ? CopyState::damaged : CopyState::stored;
    });
    if (state == CopyState::damaged)
        m_reading.note_damage();
    return state;
}

FoundCopy Search::describe_copy(const Manifest& manifest, const ManifestItem& item) {
    FoundCopy copy;
    copy.set = manifest.set;
    copy.level = level_text(manifest);
    copy.kind = item.kind;
    copy.state = state_of(item);
    copy.reason = item.reason;
    copy.dbiid = item.dbiid;
    copy.has_content = !item.object.empty();
    copy.size = item.size;
    // Sets of earlier releases do not tell: before their end.
    if (item.status == ItemStatus::stored && item.kind != ItemKind::directory)
        copy.copied = item.copied != 0 ? item.copied : manifest.ended + 1;
    return copy;
}

void Search::look_at(const Manifest& manifest) {
    if (!m_filter.takes(manifest))
        return;
    for (const ManifestItem& item : manifest.items) {
        if (std::none_of(m_patterns.begin(), m_patterns.end(), [&](const NamePattern& pattern) {
                return pattern.matches(item.path, manifest.data_directory);
            }))
            continue;
        m_found[{path_for_person(item.path, manifest.data_directory), manifest.server_name}]
            .push_back(describe_copy(manifest, item));
    }
}

// Of the copies of one item, the newest first: where its instance is another than in the next
// older one that has any.
std::vector<bool> instance_changes(const std::vector<FoundCopy>& copies) {
    std::vector<bool> changes(copies.size());
    std::string older;
    for (std::size_t i = copies.size(); i-- > 0;) {
        const std::string& dbiid = copies[i].dbiid;
        changes[i] = !dbiid.empty() && dbiid != older;
        older = dbiid.empty() ? older : dbiid;
    }
    return changes;
}

std::string Search::text() const {
    Table table({"PATH", "SERVER", "SET", "LEVEL", "KIND", "BYTES ", "COPIED", "DBIID", "STATE"});
    std::size_t all_copies = 0;
    for (const auto& [place, copies] : m_found) {
        const auto& [path, server] = place;
        const std::vector<bool> changes = instance_changes(copies);
        all_copies += copies.size();
        for (std::size_t i = 0; i < copies.size(); ++i) {
            const FoundCopy& copy = copies[i];
            table.add({for_terminal(path), for_terminal(server), copy.set, copy.level,
                       item_kind_name(copy.kind), copy.has_content ? human_bytes(copy.size) : "-",
                       copy.copied != 0 ? utc_time(copy.copied) : "-",
                       changes[i] ? copy.dbiid : "-",
                       copy_state_name(copy.state) +
                           (copy.reason.empty() ? "" : ": " + for_terminal(copy.reason))});
        }
    }
    return fmt::format("{}{} items, {} copies in {} sets looked through\n", table.text(),
                       m_found.size(), all_copies,
                       m_reading.names().size() - m_reading.unread().size());
}

nlohmann::json Search::json() const {
    nlohmann::json items = nlohmann::json::array();
    for (const auto& [place, copies] : m_found) {
        const std::vector<bool> changes = instance_changes(copies);
        nlohmann::json found = nlohmann::json::array();
        for (std::size_t i = 0; i < copies.size(); ++i) {
            const FoundCopy& copy = copies[i];
            nlohmann::json document = {{"set", copy.set},
                                       {"level", copy.level},
                                       {"kind", item_kind_name(copy.kind)},
                                       {"state", copy_state_name(copy.state)}};
            if (copy.has_content)
                document["bytes"] = copy.size;
            if (copy.copied != 0)
                document["copied"] = utc_time(copy.copied);
            if (!copy.dbiid.empty())
                document.update({{"dbiid", copy.dbiid}, {"dbiid_changed", bool(changes[i])}});
            if (!copy.reason.empty())
                document["reason"] = printable_utf8(copy.reason);
            found.push_back(std::move(document));
        }
        items.push_back({{"path", printable_utf8(std::get<0>(place))},
                         {"server", printable_utf8(std::get<1>(place))},
                         {"copies", std::move(found)}});
    }
    return items;
}

void Search::require_found() const {
    if (!m_found.empty())
        return;
    m_filter.require_server(m_store);
    std::string patterns;
    for (const NamePattern& pattern : m_patterns)
        patterns +=
            fmt::format("{}'{}'", patterns.empty() ? "" : ", ", for_terminal(pattern.given()));
    throw ClientError(ExitCode::no_such,
                      fmt::format("nothing in the sets of {} that were looked through matches {}",
                                  m_store.description(), patterns),
                      "\"*PART*\" finds what has PART in its name; quote it for the shell");
}

int Search::run() {
    for (auto name = m_reading.names().rbegin(); name != m_reading.names().rend(); ++name)
        if (std::optional<Manifest> manifest = m_reading.read(*name))
            look_at(*manifest);
    nlohmann::json missing = m_reading.report_missing();
    nlohmann::json unread = m_reading.report_unread();
    m_reading.report_denied();
    const int code = m_reading.exit_code();
    if (code == 0)
        require_found();
    if (m_options.json)
        print_json({{"command", "find"},
                    {"items", json()},
                    {"unread", unread},
                    {"missing", missing},
                    {"exit_code", code}});
    else
        print_output(text());
    return code;
}

int run_find(const FindOptions& options) {
    install_interrupt_handlers();
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    return Search(*store, options).run();
}

void add_find(CLI::App& command, CommandRuns& runs) {
    auto& find = runs.add(command, run_find);
    add_store_options(command, find);
    add_set_filter(command, find.filter, false);
    command.add_option("PATTERN", find.patterns, "What is looked for")->required();
}

} // namespace

const Command find_command = {"find", find_help, add_find};

} // namespace qrtln
