// What the model holds every command to.
#include "client/store/digest.h"
#include "notes_simulator/offline.h"
#include "notes_simulator/status.h"
#include "tests/torture/model.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace qrtln::torture {

namespace {

constexpr std::int64_t hundredths = 100;

std::string content_of(const fs::path& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

bool is_extent(const std::string& path) {
    return path.ends_with(".TXN");
}

} // namespace

void Model::violate(const std::string& rule, const std::string& text) const {
    throw Violation(rule + ": " + text);
}

// --- what is on the servers

Model::Files Model::files_of_servers() const {
    std::vector<std::string> folders;
    for (const Server& server : m_servers)
        for (const char* part : {"/data", "/logs"})
            folders.push_back(server.history->server_folder() + part);
    return files_below(folders);
}

Model::Files Model::files_below(const std::vector<std::string>& folders) const {
    Files files;
    for (const std::string& folder : folders)
        if (fs::exists(folder))
            for (const auto& entry : fs::recursive_directory_iterator(folder))
                if (entry.is_regular_file())
                    files[entry.path()] = sha256_hex(content_of(entry.path()));
    return files;
}

void Model::require_dry(std::vector<std::string> words) {
    words.emplace_back("--dry-run");
    std::vector<std::string> folders = {m_folder + "/store"};
    Files before = files_below(folders);
    Files servers = files_of_servers();
    (void)qrtln(words);
    require_unchanged(servers, {});
    Files after = files_below(folders);
    for (const Files* files : {&before, &after})
        for (const auto& [path, digest] : *files)
            if (!before.contains(path) || !after.contains(path) || before[path] != after[path])
                violate("a dry run changes nothing", words.front() + " " + path);
}

// The newest extent and the control file are written by whatever opens the log.
void Model::require_unchanged(const Files& before, const std::set<std::string>& except) const {
    Files after = files_of_servers();
    std::map<std::string, std::string> newest; // extent, by folder
    for (const auto& [path, digest] : before)
        if (is_extent(path))
            newest[fs::path(path).parent_path()] = path;
    auto may_change = [&](const std::string& path) {
        return path.ends_with(".lfh") || newest[fs::path(path).parent_path()] == path ||
               std::any_of(except.begin(), except.end(),
                           [&](const std::string& name) { return path.starts_with(name); });
    };
    bool logs_lost = m_servers[m_server].logs_lost;
    for (const auto& [path, digest] : before)
        if (!may_change(path) && (!after.contains(path) || after.at(path) != digest))
            violate("what was not named is as before",
                    path + (after.contains(path) ? " was changed" : " was removed"));
    for (const auto& [path, digest] : after)
        if (!before.contains(path) && !may_change(path) && !(logs_lost && is_extent(path)))
            violate("what was not named is as before", path + " is new");
}

void Model::require_same(const std::string& name) const {
    const ModelDatabase& database = m_servers[m_server].history->databases().at(name);
    if (!database.live)
        return;
    std::string wrong;
    try {
        wrong = difference(database.commits.back().content,
                           read_content(m_servers[m_server].history->path_of(name)));
    } catch (const std::exception& failure) {
        wrong = failure.what();
    }
    if (!wrong.empty())
        violate("what was not put in place is as before", name + ": " + wrong);
}

// The administrator brings online what was left offline, and gives up what is no database any more.
void Model::settle() {
    for (const auto& [name, database] : server().databases()) {
        std::string path = server().path_of(name);
        bool there = fs::exists(path) && m_servers[m_server].away.empty();
        if (!m_servers[m_server].away.empty() && name.starts_with("mail/"))
            continue;
        try {
            if (there) {
                notes_sim::bringOnline(server().server(), path);
                (void)server().observe(name);
            }
        } catch (const std::exception&) {
            fs::remove(path);
            there = false;
        }
        server().database(name).live = there;
    }
}

void Model::require_usable_log() {
    m_servers[m_server].logs_lost = false;
    for (const std::string& name : live())
        try {
            commit(name);
            return;
        } catch (const notes_sim::StatusError& failure) {
            violate("the server takes the logs that were restored", failure.what());
        }
}

// --- what is in the store

void Model::take_new_sets(const std::map<std::string, std::size_t>& commits_before) {
    fs::path sets = server().store() + "/sets";
    if (!fs::exists(sets))
        return;
    std::set<std::string> added;
    for (const auto& entry : fs::directory_iterator(sets))
        if (entry.path().extension() == ".json" && entry.path().stem() != foreign_file)
            added.insert(entry.path().stem());
    for (const std::string& name : added) {
        std::string bytes = content_of(sets / (name + ".json"));
        if (!m_sets.contains(name))
            take_set(name, Json::parse(bytes), commits_before);
        m_sets.at(name).digest = sha256_hex(bytes);
    }
}

void Model::take_set(const std::string& name, const Json& manifest,
                     const std::map<std::string, std::size_t>& commits_before) {
    Set& set = m_sets[name];
    set.server = m_server;
    set.level = manifest.at("level");
    set.complete = manifest.at("status") == "complete";
    set.whole = set.complete && manifest.at("selection").at("whole_system") &&
                (set.level == "full" || set.level == "copy");
    set.started = manifest.at("started");
    set.ended = manifest.at("ended");
    std::string data = server().server_folder() + "/data/";
    for (const Json& item : manifest.at("items")) {
        std::string path = item.at("path");
        if (item.at("status") != "stored")
            continue;
        if (item.at("kind") == "log" && !item.at("log").at("active"))
            set.log_objects.insert(item.at("object"));
        if (item.at("kind") != "database" || !path.starts_with(data) ||
            !server().databases().contains(path.substr(data.size())))
            continue;
        ModelDatabase& database = server().database(path.substr(data.size()));
        database.saved.push_back({name, set.ended, commits_before.at(path.substr(data.size())),
                                  database.commits.size() - 1, item.at("object")});
        m_damaged.erase(item.at("object")); // a damaged object is replaced when it comes again
    }
}

void Model::require_kept_sets() const {
    std::string sets = m_folder + "/store/sets/";
    for (const auto& [name, set] : m_sets)
        if (sha256_hex(content_of(sets + name + ".json")) != set.digest)
            violate("a set stays as it is", name);
}

// Every database that changed is in a set, or owed.
void Model::require_saved(const std::string& level, bool busy) {
    std::string owed = content_of(server().store() + "/runtime/owed.jsonl");
    if (level == "copy")
        return;
    for (const std::string& name : live()) {
        const ModelDatabase& database = server().databases().at(name);
        if (owed.find(Json(server().path_of(name)).dump()) != std::string::npos)
            continue;
        if (database.saved.empty())
            violate("every database is in a set, or owed", name + " is in none");
        const Saved& newest = database.saved.back();
        bool all_changes = !busy && (level == "full" || level == "diff");
        const Content& copied = database.commits[newest.at_most].content;
        const Content& present = database.commits.back().content;
        // No unread mark makes a document one that was modified.
        if (all_changes && (copied.notes != present.notes || copied.stubs != present.stubs))
            violate("a full or differential backup saves what changed",
                    name + ", newest in " + newest.set + ", changed at " +
                        std::to_string(database.commits.back().time));
        if (database.logged && database.left_behind(newest.at_most))
            violate("every new instance, and every restored copy, is in a set, or owed",
                    name + ", newest in " + newest.set);
    }
}

// One that was the newest may have been written to since.
void Model::require_archived_logs(const Files& before) const {
    Files after = files_of_servers();
    for (auto at = before.begin(); at != before.end(); ++at) {
        const auto& [path, digest] = *at;
        auto next = std::next(at);
        bool newest = next == before.end() || !is_extent(next->first) ||
                      fs::path(next->first).parent_path() != fs::path(path).parent_path();
        if (!is_extent(path) || newest || after.contains(path))
            continue;
        bool stored = std::any_of(m_sets.begin(), m_sets.end(), [&, &digest = digest](auto& set) {
            return set.second.log_objects.contains(digest);
        });
        if (!stored)
            violate("every log that left the server is whole in the store", path);
    }
}

void Model::require_whole_store() {
    Run run = qrtln({"verify", "--json"});
    if (run.output.empty())
        return; // no store yet
    Json told = Json::parse(run.output);
    if (!told.contains("damage"))
        return; // no store any more
    for (const Json& damage : told.at("damage")) {
        std::string what = damage.at("what");
        bool index = what.find("index of databases") != std::string::npos;
        if (what.find(foreign_file) != std::string::npos)
            continue;
        bool object = what.starts_with("object ") && m_damaged.contains(what.substr(7));
        if (!object && !(index && m_index_harmed))
            violate("the store is whole", damage.dump());
    }
    for (const Json& text : told.at("information"))
        if (!m_leftovers && std::string(text).find("no readable set") != std::string::npos)
            violate("nothing is left over without a run that failed", text);
}

// --- what a restore or recovery told

void Model::require_restored(const std::string& name, const std::vector<std::string>& options) {
    ModelDatabase& database = server().database(name);
    Content found = read_content(server().path_of(name));
    const Saved* copy = nullptr;
    for (const Saved& saved : database.saved) {
        if (damaged(saved) ||
            (!options.empty() && options[0] == "--set" && saved.set != options[1]))
            continue;
        if (database.commits[saved.at_most].content == found)
            copy = &saved;
    }
    if (copy == nullptr) {
        bool busy = std::any_of(database.saved.begin(), database.saved.end(),
                                [](const Saved& set) { return set.at_least != set.at_most; });
        if (!busy)
            violate("a restored database is as in a set", name);
    }
    if (!options.empty() && options[0] == "--at") {
        std::tm fields{};
        ::strptime(options[1].c_str(), "%Y-%m-%d %H:%M:%S", &fields);
        std::int64_t moment = ::timegm(&fields) * hundredths;
        bool earlier = std::any_of(
            database.commits.begin(), database.commits.end(),
            [&](const Commit& commit) { return commit.time <= moment && commit.content == found; });
        if (!earlier)
            violate("a database that was saved up to a moment has nothing later", name);
    } else if (options.empty() && copy != nullptr && !damaged(database.saved.back()) &&
               database.commits[database.saved.back().at_most].content != found &&
               database.saved.back().at_least == database.saved.back().at_most) {
        violate("the newest copy is restored", name);
    }
    database.live = true;
    server().note_restored(name);
}

// The state that a recovery claims; nullptr when it claims none that is known.
const Commit* Model::expected(const Recovery& recovery, const Json& told, const std::string& name) {
    const ModelDatabase& database = server().databases().at(name);
    std::string reached = told.at("recovered_to");
    std::string set = told.at("set");
    if (told.at("outcome") == "as in its set" || !database.logged) {
        for (const Saved& saved : database.saved)
            if (saved.set == set && saved.at_least == saved.at_most)
                return &database.commits[saved.at_most];
        return nullptr;
    }
    if (reached.starts_with("the end of the stored logs"))
        return nullptr;
    bool by_earlier_run = reached.empty() || reached == "by an earlier run";
    bool of_instance = reached.find("for the saved instance") != std::string::npos ||
                       (by_earlier_run && !recovery.was_live.contains(name));
    if (recovery.to && !of_instance)
        return &database.commits[database.commit_at(recovery.to)];
    if (!of_instance)
        return &database.commits.back();
    if (m_servers[recovery.server].log_was_lost)
        return nullptr;           // and came back as far as a set had it
    const Commit* last = nullptr; // of the instance that was saved
    for (const Saved& saved : database.saved)
        if (saved.set == set)
            for (const Commit& commit : database.commits)
                if (commit.dbiid == database.commits[saved.at_most].dbiid &&
                    (!recovery.to || commit.time <= *recovery.to * hundredths))
                    last = &commit;
    return last;
}

void Model::require_recovered(const Recovery& recovery, const Json& told, const std::string& name,
                              const std::string& file) {
    const Commit* commit = expected(recovery, told, name);
    std::string wrong;
    try {
        Content found = read_content(file);
        if (commit != nullptr)
            wrong = difference(commit->content, found);
    } catch (const std::exception& failure) {
        wrong = failure.what();
    }
    if (!wrong.empty())
        violate("what was told is so", name + " is told as " + told.dump() + ", but: " + wrong);
}

// Whether nothing stands in the way of a recovery of this database.
bool Model::is_plain(const Recovery& recovery, const std::string& name) const {
    const ModelDatabase& database = m_servers[m_server].history->databases().at(name);
    const Saved* newest = database.newest_before(recovery.to);
    std::string owed = content_of(m_folder + "/store/runtime/owed.jsonl");
    std::string path = m_servers[m_server].history->path_of(name);
    if (owed.find(Json(path).dump()) != std::string::npos)
        return false; // a restore put it in place, or began to
    if (newest == nullptr || damaged(*newest) || m_servers[m_server].log_was_lost)
        return false;
    return !database.left_behind(newest->at_most);
}

void Model::require_told_recovery(const Recovery& recovery, const Run& run) {
    Json document = run.output.empty() ? Json() : Json::parse(run.output);
    std::set<std::string> done;
    if (document.contains("result"))
        for (const Json& told : document.at("result").at("databases")) {
            std::string path = told.at("path");
            std::string name = path.substr((server().server_folder() + "/data/").size());
            std::string outcome = told.at("outcome");
            bool short_of = outcome == "waiting" || outcome == "failed";
            bool before = outcome == "in place before";
            bool unsure = outcome == "perhaps recovered" || (before && told.at("reason") != "");
            const ModelDatabase& database = server().databases().at(name);
            if (run.exit_code == 0 &&
                (short_of || unsure || (outcome == "as in its set" && database.logged)))
                violate("exit 0 stands over no less", told.dump());
            if (short_of && m_options.calm && recovery.resumed)
                violate("a recovery that was killed is gone on with", told.dump());
            if (short_of)
                continue;
            done.insert(name);
            if (m_unfinished)
                m_unfinished->put_in_place.insert(name);
            if (!unsure && !(before && recovery.put_in_place.contains(name)))
                require_recovered(recovery, told, name,
                                  recovery.into.empty() ? server().path_of(name)
                                                        : std::string(told.at("target")));
        }
    if (run.exit_code == 0)
        for (const std::string& name : recovery.names)
            if (!done.contains(name))
                violate("exit 0 stands over no less", name + " is not told of");
    bool plain = m_options.calm && !m_unfinished && recovery.plain;
    for (const std::string& name : recovery.names)
        plain = plain && is_plain(recovery, name);
    if (plain && !recovery.names.empty() && run.exit_code != 0)
        violate("a recovery with nothing in its way succeeds",
                std::to_string(run.exit_code) + ": " + run.errors + run.output);
    if (!recovery.into.empty()) {
        for (const std::string& name : live())
            require_same(name);
        return;
    }
    for (const auto& [name, database] : server().databases()) {
        if (!done.contains(name)) {
            if (!m_unfinished)
                require_same(name);
            continue;
        }
        server().database(name).live = true;
        // Beyond a moment no log leads from the copies of before to what is there now.
        if (recovery.to || recovery.new_dbiid || !database.logged)
            server().note_restored(name);
        else if (!server().observe(name))
            server().database(name).commits.back().replayed = true;
    }
}

// What a recovery that was killed has put in its place already.
void Model::note_progress(Recovery& recovery) {
    for (const auto& [name, database] : server().databases()) {
        bool named =
            recovery.names.empty() ||
            std::find(recovery.names.begin(), recovery.names.end(), name) != recovery.names.end();
        const Saved* copy = database.newest_before(recovery.to);
        if (!named || copy == nullptr || !recovery.into.empty())
            continue;
        Json told = {{"outcome", "recovered"}, {"recovered_to", ""}, {"set", copy->set}};
        std::string path = server().path_of(name);
        try {
            bool offline = notes_sim::isOffline(server().server(), path);
            Content found = read_content(path);
            const Commit* wanted = expected(recovery, told, name);
            if (!offline && wanted != nullptr && wanted->content == found) {
                recovery.put_in_place.insert(name);
                server().database(name).live = true;
                (void)server().observe(name);
            } else if (offline || !database.live || found != database.commits.back().content) {
                server().database(name).live = false; // nobody can use it, or knows it
            }
        } catch (const std::exception&) {
            server().database(name).live = false;
        }
    }
}

} // namespace qrtln::torture
