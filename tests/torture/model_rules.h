// What a history holds every command to.
#pragma once

#include "client/base/text.h"
#include "client/sets/item_content.h"
#include "notes_simulator/engine/offline.h"
#include "notes_simulator/server/use_mark.h"
#include "tests/torture/model.h"

namespace qrtln::torture {

using Files = std::map<std::string, std::string>; // by path: a digest of the content

// Regular files with digests of their contents.
inline Files files_below(const std::string& folder) {
    Files files;
    if (fs::exists(folder))
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            if (entry.is_regular_file())
                files[entry.path()] = sha256_hex(read_file(entry.path()));
    return files;
}

inline bool is_extent(const std::string& path) {
    return path.ends_with(".TXN");
}

// Whether it was the newest one of its log, to which is written.
inline bool was_written_to(const Files& files, const std::string& path) {
    auto next = files.upper_bound(path);
    return files.contains(path) && is_extent(path) &&
           (next == files.end() || !is_extent(next->first) ||
            fs::path(next->first).parent_path() != fs::path(path).parent_path());
}

class Rules : public Model {
  protected:
    using Model::Model;

    // A recovery: what was asked for, and what was there before.
    struct Recovery {
        std::size_t server = 0;
        std::vector<std::string> names = {}; // empty: all
        std::optional<std::int64_t> to = {}; // seconds since 1970
        std::string into = {};
        bool new_dbiid = false;
        bool resumed = false;
        bool plain = false; // nothing stood in its way when it began
        std::set<std::string> was_live = {};
        // By a run that did not end well, as they should be.
        std::set<std::string> put_in_place = {};
    };

    // --- what is on the servers

    Files files_of_servers() const {
        Files files;
        for (const auto& server : m_servers)
            for (const char* part : {"/data", "/logs"})
                files.merge(files_below(server->server_folder() + part));
        return files;
    }

    void require_unchanged(const Files& before, const std::set<std::string>& except) const {
        Files after = files_of_servers();
        Files all = before;
        all.insert(after.begin(), after.end());
        for (const auto& [path, digest] : all) {
            bool was = before.contains(path);
            bool is = after.contains(path);
            bool may_change = path.ends_with(".lfh") || was_written_to(before, path) ||
                              (!was && server().logs_lost && is_extent(path));
            for (const std::string& name : except)
                may_change = may_change || path.starts_with(name);
            require(may_change || (was && is && digest == after.at(path)),
                    "what was not named is as before",
                    path + (!was ? " is new"
                            : is ? " was changed"
                                 : " was removed"));
        }
    }

    void require_same(const std::string& name) const {
        const ModelDatabase& database = server().database(name);
        if (!database.live)
            return;
        std::string wrong = difference(database.present(), server().path_of(name));
        require(wrong.empty(), "what was not put in place is as before", name + ": " + wrong);
    }

    void require_dry(std::vector<std::string> words) {
        words.emplace_back("--dry-run");
        Files servers = files_of_servers();
        Files before = files_below(m_store);
        (void)qrtln(words);
        require_unchanged(servers, {});
        require(files_below(m_store) == before, "a dry run changes nothing", words.front());
    }

    // The administrator brings online what was left offline, and gives up what is no database any
    // more.
    void settle() {
        for (auto& [name, database] : server().databases) {
            std::string path = server().path_of(name);
            try {
                database.live = fs::exists(path);
                if (database.live) {
                    notes_sim::bringOnline(server().server(), path);
                    (void)server().observe(name);
                }
            } catch (const std::exception&) {
                fs::remove(path);
                database.live = false;
            }
        }
    }

    // --- what is in the store

    bool is_damaged(const Saved& saved) const {
        if (m_harmed.empty())
            return false;
        auto store = open_directory_store(m_store, StoreAccess::read);
        return !read_item(*store, saved.item, [](Bytes) {}).problem.empty();
    }

    bool is_owed(const std::string& name) const {
        std::string owed = read_file(m_store + "/runtime/owed.jsonl");
        return owed.find(Json(server().path_of(name)).dump()) != std::string::npos;
    }

    void require_kept_sets() const {
        for (const auto& [name, set] : m_sets)
            require(sha256_hex(read_file(m_store + "/sets/" + name + ".json")) == set.digest,
                    "a set stays as it is", name);
    }

    // Every database that changed is in a set, or owed.
    void require_saved(const std::string& level, bool busy) const {
        if (level == "copy")
            return;
        for (const std::string& name : server().live()) {
            const ModelDatabase& database = server().database(name);
            if (is_owed(name))
                continue;
            require(!database.saved.empty(), "every database is in a set, or owed", name);
            const Saved& newest = database.saved.back();
            const Content& copied = database.content_of(newest);
            // No unread mark makes a document one that was modified.
            bool same = copied.notes == database.present().notes &&
                        copied.stubs == database.present().stubs;
            require(same || busy || (level != "full" && level != "diff"),
                    "a full or differential backup saves what changed",
                    name + ", newest in " + newest.set + ", changed at " +
                        std::to_string(database.commits.back().time));
            require(!database.logged || !database.left_behind(newest.at_most),
                    "every new instance, and every restored copy, is in a set, or owed",
                    name + ", newest in " + newest.set);
        }
    }

    void require_archived_logs(const Files& before) const {
        Files after = files_of_servers();
        for (const auto& [path, digest] : before)
            require(!is_extent(path) || was_written_to(before, path) || after.contains(path) ||
                        is_archived(digest),
                    "every log that left the server is whole in the store", path);
    }

    void require_whole_store() {
        Json told = qrtln({"verify", "--json"}).document();
        if (!told.contains("damage"))
            return; // no store yet, or none any more
        for (const Json& damage : told.at("damage")) {
            std::string what = damage.at("what");
            bool index = what.find("index of databases") != std::string::npos;
            std::string told_of = what + damage.at("problem").get<std::string>();
            bool content =
                std::any_of(m_harmed.begin(), m_harmed.end(), [&](const std::string& pack) {
                    return told_of.find("pack " + pack) != told_of.npos;
                });
            require(content || (index && m_index_harmed), whole_store, damage.dump());
        }
        for (const std::string text : told.at("information"))
            require(m_leftovers || text.find("no readable set") == text.npos,
                    "nothing is left over without a run that failed", text);
    }

    // --- what a restore or recovery told

    bool is_unfinished() const { return fs::exists(m_store + "/runtime/recovery.json"); }

    void run_recovery(Recovery recovery, const std::vector<std::string>& options = {},
                      Kill kill = {}) {
        std::vector<std::string> words = {"recover", "--json"};
        words.insert(words.end(), recovery.names.begin(), recovery.names.end());
        if (recovery.names.empty())
            words.emplace_back("--all");
        if (recovery.to)
            words.insert(words.end(), {"--to", utc_time(*recovery.to)});
        if (!recovery.into.empty())
            words.insert(words.end(), {"--into", recovery.into});
        if (recovery.new_dbiid)
            words.emplace_back("--new-dbiid");
        words.insert(words.end(), options.begin(), options.end());
        for (const std::string& word : words)
            m_doing += " " + word;
        std::vector<std::string> names = server().live();
        recovery.was_live = {names.begin(), names.end()};
        recovery.plain =
            std::all_of(recovery.names.begin(), recovery.names.end(),
                        [&](const std::string& name) { return is_plain(recovery, name); });
        std::optional<notes_sim::UseMark> used;
        if (!m_options.calm && kill.call == 0 && one_in(6) && !names.empty()) {
            std::string name =
                recovery.names.empty() || !recovery.was_live.contains(recovery.names[0])
                    ? one_of(names)
                    : recovery.names[0];
            m_doing += ", " + name + " in use";
            used.emplace(server().server(), server().path_of(name));
        }
        Files before = files_of_servers();
        if (one_in(5))
            require_dry(words);
        Run run = qrtln(words, {}, kill);
        m_doing += run.killed ? ", killed" : "";
        used.reset();
        if (is_unfinished())
            m_unfinished = recovery;
        if (run.killed) {
            if (m_unfinished)
                note_progress(*m_unfinished);
            else
                settle();
            return;
        }
        std::set<std::string> named;
        for (const std::string& name : recovery.names)
            named.insert(server().path_of(name));
        if (recovery.names.empty())
            named.insert(server().data());
        if (!m_unfinished)
            require_unchanged(before, recovery.into.empty() ? named : std::set<std::string>());
        require_told_recovery(recovery, run);
        fs::remove_all(server().folder + "/into");
        for (const char* option : {"--replace-live", "--logs-lost"})
            if (options.empty() && !m_unfinished && run.exit_code != 0 &&
                (run.errors + run.output).find(option) != std::string::npos && one_in(2)) {
                run_recovery(recovery, {option});
                break;
            }
    }

    // From the newest set, from the newest up to a moment in seconds since 1970, or from a set by
    // name.
    void require_restored(const std::string& name, std::optional<std::int64_t> at,
                          const std::string& set) {
        ModelDatabase& database = server().database(name);
        Content found = read_content(server().path_of(name));
        const Saved* copy = nullptr;
        bool busy = false;
        for (const Saved& saved : database.saved) {
            busy = busy || !saved.is_exact();
            if ((set.empty() || saved.set == set) && !is_damaged(saved) &&
                database.content_of(saved) == found)
                copy = &saved;
        }
        require(copy != nullptr || busy, "a restored database is as in a set", name);
        if (at) {
            bool earlier = std::any_of(
                database.commits.begin(), database.commits.end(), [&](const Commit& commit) {
                    return commit.time <= *at * hundredths && commit.content == found;
                });
            require(earlier, "a database that was saved up to a moment has nothing later", name);
        } else if (set.empty() && copy != nullptr) {
            const Saved& newest = database.saved.back();
            require(is_damaged(newest) || database.content_of(newest) == found ||
                        !newest.is_exact(),
                    "the newest copy is restored", name);
        }
        database.live = true;
        server().note_restored(name);
    }

    // The state that a recovery claims; nullptr when it claims none that is known.
    const Commit* expected(const Recovery& recovery, const Json& told,
                           const std::string& name) const {
        const ModelDatabase& database = server().database(name);
        std::string reached = told.value("recovered_to", "");
        const Saved* copy = nullptr;
        for (const Saved& saved : database.saved)
            if (saved.set == told.value("set", ""))
                copy = &saved;
        if (told.at("outcome") == "as in its set" || !database.logged)
            return copy != nullptr && copy->is_exact() ? &database.commits[copy->at_most] : nullptr;
        if (reached.starts_with("the end of the stored logs"))
            return nullptr;
        bool by_earlier_run = reached.empty() || reached == "by an earlier run";
        bool of_instance = reached.find("for the saved instance") != std::string::npos ||
                           (by_earlier_run && !recovery.was_live.contains(name));
        if (!of_instance)
            return &database.commit_at(recovery.to);
        if (server().log_was_lost || copy == nullptr)
            return nullptr;           // it may have come back as far as a set had it
        const Commit* last = nullptr; // of the instance that was saved
        for (const Commit& commit : database.commits)
            if (commit.is_of_instance(database.commits[copy->at_most]) &&
                (!recovery.to || commit.time <= *recovery.to * hundredths))
                last = &commit;
        return last;
    }

    // Whether nothing stands in the way of a recovery of this database.
    bool is_plain(const Recovery& recovery, const std::string& name) const {
        const ModelDatabase& database = server().database(name);
        const Saved* newest = database.newest_before(recovery.to);
        return !is_owed(name) && // a restore put it in place, or began to
               newest != nullptr && !is_damaged(*newest) && !server().log_was_lost &&
               !database.left_behind(newest->at_most);
    }

    // What is told of one database. Returns whether it is said to be in its place.
    bool require_told(const Recovery& recovery, const Run& run, const Json& told,
                      const std::string& name) {
        const ModelDatabase& database = server().database(name);
        std::string outcome = told.at("outcome");
        bool short_of = outcome == "waiting" || outcome == "failed";
        bool before = outcome == "in place before";
        bool unsure = outcome == "perhaps recovered" || (before && told.contains("reason"));
        bool less = short_of || unsure || (outcome == "as in its set" && database.logged);
        require(run.exit_code != 0 || !less, "exit 0 stands over no less", told.dump());
        require(!short_of || !m_options.calm || !recovery.resumed,
                "a recovery that was killed is gone on with", told.dump());
        if (short_of)
            return false;
        if (m_unfinished)
            m_unfinished->put_in_place.insert(name);
        if (unsure || (before && recovery.put_in_place.contains(name)))
            return true;
        std::string file =
            recovery.into.empty() ? server().path_of(name) : told.at("target").get<std::string>();
        const Commit* commit = expected(recovery, told, name);
        std::string wrong;
        if (commit != nullptr)
            wrong = difference(commit->content, file);
        else
            (void)read_content(file); // whole, whatever it has
        require(wrong.empty(), "what was told is so",
                name + " is told as " + told.dump() + ", but: " + wrong);
        return true;
    }

    void require_told_recovery(const Recovery& recovery, const Run& run) {
        Json document = run.document();
        std::set<std::string> done;
        if (document.contains("result"))
            for (const Json& told : document.at("result").at("databases")) {
                std::string path = told.at("path");
                std::string name = path.substr(server().data().size());
                if (require_told(recovery, run, told, name))
                    done.insert(name);
            }
        bool plain = m_options.calm && !m_unfinished && recovery.plain && !recovery.names.empty();
        for (const std::string& name : recovery.names) {
            require(run.exit_code != 0 || done.contains(name), "exit 0 stands over no less",
                    name + " is not told of");
            plain = plain && is_plain(recovery, name);
        }
        require(!plain || run.exit_code == 0, "a recovery with nothing in its way succeeds",
                std::to_string(run.exit_code) + ": " + run.errors + run.output);
        for (auto& [name, database] : server().databases) {
            if (!recovery.into.empty() || !done.contains(name)) {
                if (!recovery.into.empty() || !m_unfinished)
                    require_same(name);
                continue;
            }
            database.live = true;
            // Beyond a moment no log leads from the copies of before to what is there now.
            if (recovery.to || recovery.new_dbiid || !database.logged)
                server().note_restored(name);
            else if (!server().observe(name))
                database.commits.back().replayed = true;
        }
    }

    // What a recovery that was killed has put in its place already.
    void note_progress(Recovery& recovery) {
        for (auto& [name, database] : server().databases) {
            bool named = recovery.names.empty() ||
                         std::count(recovery.names.begin(), recovery.names.end(), name) > 0;
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
                    database.live = true;
                    (void)server().observe(name);
                } else if (offline || !(found == database.present())) {
                    database.live = false; // nobody can use it, or knows it
                }
            } catch (const std::exception&) {
                database.live = false;
            }
        }
    }

    std::optional<Recovery> m_unfinished;
    bool m_index_harmed = false;
};

} // namespace qrtln::torture
