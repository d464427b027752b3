#include "client/sets/catalogue.h"

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/sets/server_scope.h"
#include "client/store/digest.h"

#include <algorithm>
#include <ctime>
#include <list>
#include <set>

namespace qrtln {

namespace {

// Manifests that were parsed last, by the hash of their bytes: a run asks for the same ones many
// times, and to parse one of many databases takes longer than to pass over all of them.
class ParsedManifests {
  public:
    std::optional<Manifest> parse(const std::string& bytes, const std::string& set,
                                  std::string& problem) {
        const std::string hash = sha256_hex(bytes) + set;
        auto known = std::find_if(m_manifests.begin(), m_manifests.end(),
                                  [&](const Parsed& parsed) { return parsed.hash == hash; });
        if (known != m_manifests.end()) {
            m_manifests.splice(m_manifests.begin(), m_manifests, known);
            return known->manifest;
        }
        std::optional<Manifest> manifest = parse_manifest(bytes, set, problem);
        if (manifest) {
            m_manifests.push_front({hash, bytes.size(), *manifest});
            m_size += bytes.size();
            while (m_size > most_bytes) {
                m_size -= m_manifests.back().size;
                m_manifests.pop_back();
            }
        }
        return manifest;
    }

  private:
    static constexpr std::size_t most_bytes = std::size_t{24} << 20; // of manifests as they lie
    struct Parsed {
        std::string hash;
        std::size_t size;
        Manifest manifest;
    };
    std::list<Parsed> m_manifests; // the one used last is the first
    std::size_t m_size = 0;
};

} // namespace

CatalogueEntry load_set(Store& store, const std::string& set) {
    static ParsedManifests parsed;
    CatalogueEntry entry{set, std::nullopt, {}};
    if (std::optional<std::string> bytes = store.read_manifest(set, entry.problem))
        entry.manifest = parsed.parse(*bytes, set, entry.problem);
    return entry;
}

CatalogueEntry load_set(Store& store, const std::string& set, const ServerScope& scope) {
    CatalogueEntry entry = load_set(store, set);
    if (entry.manifest && !scope.covers(*entry.manifest))
        entry.manifest.reset();
    if (entry.manifest)
        move_data_directory(*entry.manifest, scope.recorded_data_directory, scope.data_directory);
    return entry;
}

std::string resolve_set(Store& store, const std::string& given, const ServerScope* scope) {
    std::vector<std::string> names = store.set_names();
    if (names.empty())
        throw ClientError(ExitCode::no_such, store.description() + " has no sets",
                          "`qrtln backup` stores one");
    if (given == "latest" && scope == nullptr)
        return names.back();
    if (given == "latest") {
        std::string newest = newest_set(store, *scope);
        OtherServers others = newest.empty() ? other_servers(store, *scope) : OtherServers{};
        if (newest.empty())
            throw ClientError(ExitCode::no_such,
                              store.description() + " has no set of this server: " + others.what,
                              others.hint);
        return newest;
    }
    if (std::find(names.begin(), names.end(), given) != names.end())
        return given;
    std::vector<std::string> matches;
    for (const std::string& name : names)
        if (name.starts_with(given))
            matches.push_back(name);
    if (matches.size() == 1)
        return matches[0];
    std::string text = for_terminal(given);
    if (matches.empty())
        throw ClientError(ExitCode::no_such, store.description() + " has no set '" + text + "'",
                          "`qrtln list` shows the sets; \"latest\" names the newest");
    throw ClientError(ExitCode::failed,
                      "'" + text + "' is the beginning of " + std::to_string(matches.size()) +
                          " sets: " + for_terminal(matches[0]) + " to " +
                          for_terminal(matches.back()),
                      "give more of the name");
}

Manifest require_set(Store& store, const std::string& given, const ServerScope* scope) {
    CatalogueEntry entry = load_set(store, resolve_set(store, given, scope));
    if (!entry.manifest)
        throw ClientError(ExitCode::damage_found,
                          "the manifest of the set " + for_terminal(entry.set) + " " +
                              for_terminal(entry.problem),
                          "`qrtln verify` tells what else is damaged; other sets may hold what you "
                          "want");
    if (scope == nullptr)
        return std::move(*entry.manifest);
    if (!scope->covers(*entry.manifest))
        throw ClientError(ExitCode::failed,
                          "the set " + entry.set + " is of another server, " +
                              server_text(*entry.manifest),
                          other_servers(store, *scope).hint);
    move_data_directory(*entry.manifest, scope->recorded_data_directory, scope->data_directory);
    return std::move(*entry.manifest);
}

std::int64_t complete_at(const Manifest& manifest) {
    std::int64_t time = manifest.ended + 1;
    for (const ManifestItem& item : manifest.items) // the clock may have been set back meanwhile
        time = std::max(time, item.copied);
    return time;
}

std::optional<BaseSet> find_base(Store& store, const ServerScope& scope) {
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        if (!name->ends_with("-full")) // the name is the level's too: no need to read the others
            continue;
        CatalogueEntry entry = load_set(store, *name, scope);
        if (entry.manifest && entry.manifest->level == "full" && entry.manifest->complete &&
            entry.manifest->whole_system)
            return BaseSet{*name, entry.manifest->started, entry.manifest->close_error.empty()};
    }
    return std::nullopt;
}

SetsSince look_at_sets_since(Store& store, const BaseSet& base, const ServerScope& scope) {
    SetsSince since;
    for (const std::string& name : store.set_names()) {
        if (name < base.set)
            continue;
        CatalogueEntry entry = load_set(store, name, scope);
        if (!entry.manifest)
            continue;
        if (entry.manifest->started < base.started)
            since.begun_before = name;
        for (const ManifestItem& item : entry.manifest->items)
            if (item.kind == ItemKind::database && item.status == ItemStatus::stored)
                since.databases.insert(item.path);
    }
    return since;
}

std::vector<std::string> saved_databases(Store& store, const ServerScope& scope) {
    std::set<std::string> paths;
    for (const std::string& set : store.set_names()) {
        CatalogueEntry entry = load_set(store, set, scope);
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (item.kind == ItemKind::database && item.status == ItemStatus::stored)
                paths.insert(item.path);
    }
    return {paths.begin(), paths.end()};
}

std::string newest_set(Store& store, const ServerScope& scope) {
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        if (CatalogueEntry entry = load_set(store, *name, scope);
            entry.manifest || !entry.problem.empty())
            return *name;
    return {};
}

std::string new_set_name(Store& store, std::int64_t started, const std::string& level) {
    std::vector<std::string> names = store.set_names();
    std::int64_t time = started;
    // The newest set has the last name, also after two sets in a second and when the clock was set
    // back: the time in the name gives way, the manifest has the true one.
    std::tm newest{};
    if (!names.empty() && ::strptime(names.back().c_str(), "%Y%m%dT%H%M%SZ", &newest) != nullptr)
        time = std::max<std::int64_t>(time, ::timegm(&newest) + 1);
    std::string name = utc_time_compact(time) + "-" + level;
    if (!is_set_name(name))
        throw ClientError(
            ExitCode::failed, "no set can be newer than " + (names.empty() ? name : names.back()),
            "set the clock right; a set of a wrong time keeps its place in the order");
    return name;
}

OtherServers other_servers(Store& store, const ServerScope& scope) {
    std::optional<Manifest> nearest;   // the newest of this name, else the newest
    constexpr std::size_t enough = 10; // for a person
    std::set<std::string> servers;
    for (const std::string& name : store.set_names()) {
        CatalogueEntry entry = load_set(store, name);
        if (!entry.manifest || scope.covers(*entry.manifest))
            continue;
        if (servers.size() < enough)
            servers.insert(server_text(*entry.manifest));
        if (!nearest || entry.manifest->server_name == scope.name ||
            nearest->server_name != scope.name)
            nearest = std::move(entry.manifest);
    }
    OtherServers others;
    if (!nearest)
        return others;
    const std::string name = for_terminal(nearest->server_name);
    const std::string moved = "--data-directory " + for_terminal(nearest->data_directory) + "=" +
                              for_terminal(scope.data_directory);
    bool elsewhere = nearest->data_directory != scope.recorded_data_directory;
    if (nearest->server_name == scope.name && elsewhere)
        others.hint = "if its data directory was moved, say " + moved;
    else if (nearest->server_name == scope.name)
        others.hint = "notes.ini names another server than theirs; to take them all the same, say "
                      "--from-server " +
                      name;
    else
        others.hint = "if this is that server on another host, say --server " + name +
                      "; to take another server's sets, --from-server " + name +
                      (elsewhere ? ", with " + moved : "");
    for (const std::string& server : servers)
        others.what += (others.what.empty() ? "the store has sets of " : ", of ") + server;
    others.what += ", not of " + for_terminal(scope.name) + " (" +
                   for_terminal(scope.recorded_data_directory) +
                   (scope.own_name.empty() ? "" : ", " + for_terminal(scope.own_name)) + ")";
    return others;
}

} // namespace qrtln
