// The commands of a history: backups, restores and recoveries, which may fail or be killed.
#pragma once

#include "tests/torture/model_rules.h"

namespace qrtln::torture {

class Commands : public Rules {
  protected:
    using Rules::Rules;

    // One of these, which is what the step is about; empty when there are too few.
    std::string choose(const std::vector<std::string>& names, std::size_t at_least = 1) {
        if (names.size() < at_least)
            return {};
        const std::string& name = one_of(names);
        m_doing += " " + name;
        return name;
    }

    // A user's work makes the server begin a log where there is none.
    void begin_log_anew() {
        if (std::vector<std::string> names = server().live(); !names.empty())
            commit(names.front());
    }

    // What was committed after the newest set is in no log any more.
    void remove_logs() {
        server().simulate({"lose", "--logs"});
        server().logs_lost = server().log_was_lost = true;
        m_barrier = std::max(m_barrier, seconds());
    }

    // What one backup meets.
    struct Trouble {
        Environment fault = {};
        Kill kill = {};
    };
    std::string junk_file() const { return server().path_of("broken.nsf"); }
    Trouble random_trouble() {
        static constexpr std::pair<const char*, const char*> faults[] = {
            {"QRTLN_MODEL_FAULTS", "read .TXN 32768"},
            {"QRTLN_MODEL_FAULTS", "rename qrtln_DBIID.ini 5"},
            {"QRTLN_MODEL_FAULTS", "rename qrtln_DBIID.ini 5"},
            {"NOTES_SIM_FAULTS", "ConvertTIMEDATEToText=259"},
            {"QRTLN_MODEL_FAULTS", "lookup .zst 116;rename .json 5"},
            {"NOTES_SIM_FAULTS", "NSFEndArchivingLogs=259"}};
        constexpr std::size_t junk = std::size(faults);
        Trouble trouble;
        if (!m_options.calm && !one_in(2)) {
            std::size_t which = m_dice.below(junk + 2);
            if (which < junk)
                trouble.fault.insert(faults[which]);
            else if (which == junk)
                std::ofstream(junk_file()) << "no database\n";
            else
                trouble.kill = {static_cast<Victim>(m_dice.below(3)), 1 + m_dice.below(300)};
        }
        for (const auto& [name, value] : trouble.fault)
            m_doing += ", " + value;
        m_doing += trouble.kill.call != 0 ? ", killed" : "";
        return trouble;
    }

    void back_up() {
        static constexpr const char* levels[] = {"full", "full", "incr", "incr",
                                                 "incr", "diff", "diff", "copy"};
        std::string level = m_sets.empty() ? "full" : one_of(levels);
        std::vector<std::string> words = {"backup", "--json", "--level", level};
        if (one_in(3) && (level == "incr" || level == "diff"))
            words.emplace_back("--auto-full");
        m_doing += " " + level;
        const auto [fault, kill] = random_trouble();
        std::vector<std::string> names = server().live();
        bool busy = fault.empty() && kill.call == 0 && one_in(6) && !names.empty();
        note_commits();
        Files before = files_of_servers();
        Run run;
        if (busy) { // the clock runs, so that commits and copies are seconds apart
            m_doing += ", busy";
            std::int64_t begun = m_clock.now();
            m_clock.go(20);
            Program backup(server().command(words));
            for (std::size_t i = 0; !backup.ended(); ++i) // how often depends on the machine
                commit(names[i % names.size()]);
            run = {backup.wait()};
            stand_still_after(begun);
        } else {
            run = qrtln(words, fault, kill);
        }
        fs::remove(junk_file());
        for (const std::string& name : server().live()) {
            Content known = server().database(name).present();
            require(server().observe(name) || server().database(name).present() == known,
                    "a backup changes no database", name);
        }
        take_new_sets();
        require_archived_logs(before);
        bool in_its_way = m_unfinished || level == "incr" || level == "diff" || names.empty() ||
                          run.errors.find("mount its disk") != run.errors.npos ||
                          run.errors.find(" are away: ") != run.errors.npos;
        require(!m_options.calm || in_its_way || run.exit_code == 0 || run.exit_code == 16,
                "a backup of a calm server succeeds", run.errors);
        if (run.exit_code == 0 && !run.killed) {
            level = run.document().at("level");
            m_index_harmed = m_index_harmed && level != "full";
            require_saved(level, busy);
        }
        if (one_in(4))
            require_whole_store();
    }

    // A moment that came once, not before the first set, or nothing.
    std::optional<std::int64_t> random_moment() {
        std::int64_t ended = 0;
        for (const auto& [name, set] : m_sets)
            if (set.server == &server() && set.whole && (ended == 0 || set.ended < ended))
                ended = set.ended;
        std::int64_t first = std::max(m_barrier, ended) + 1;
        if (ended == 0 || seconds() <= first)
            return std::nullopt;
        if (one_in(2)) { // near a commit
            const auto& commits = server().database(one_of(server().saved())).commits;
            std::int64_t moment =
                one_of(commits).time / 100 + static_cast<std::int64_t>(m_dice.below(2));
            if (moment > first && moment < seconds())
                return moment;
        }
        return first + static_cast<std::int64_t>(
                           m_dice.below(static_cast<std::uint64_t>(seconds() - first)));
    }

    // One database, from the newest set, up to a moment or from a set.
    void restore() {
        std::string name = choose(server().saved());
        if (name.empty())
            return;
        std::optional<std::int64_t> at = random_moment();
        std::string set = one_of(server().database(name).saved).set;
        if (at && one_in(2))
            run_restore({name, "--at", qrtln::utc_time(*at)}, at);
        else if (one_in(3))
            run_restore({name, "--set", set}, {}, set);
        else
            run_restore({name});
    }

    void restore_all() {
        bool any_set = std::any_of(m_sets.begin(), m_sets.end(), [&](const auto& set) {
            return set.second.server == &server() && set.second.whole;
        });
        if (any_set && !m_unfinished)
            run_restore({"--all"});
    }

    void run_restore(std::vector<std::string> words, std::optional<std::int64_t> at = {},
                     const std::string& set = {}) {
        const std::string one = words.front() == "--all" ? "" : words.front();
        bool logs_gone = !fs::exists(server().server_folder() + "/logs");
        words.insert(words.begin(), {"restore", "--json", "--activate"});
        for (const std::string& word : words)
            m_doing += " " + word;
        Files before = files_of_servers();
        if (one_in(5))
            require_dry(words);
        Run run = qrtln(words);
        Json told = run.document();
        std::set<std::string> restored;
        if (told.contains("result"))
            restored = told.at("result").at("restored").get<std::set<std::string>>();
        require(run.exit_code != 0 || !restored.empty(), "what exit 0 stands over was restored",
                m_doing);
        bool with_logs = one.empty() && logs_gone;
        if (!with_logs)
            require_unchanged(before, {server().path_of(one)});
        for (const auto& [name, database] : server().databases)
            if (restored.contains(server().path_of(name)))
                require_restored(name, at, set);
            else if (one.empty() || name == one)
                require_same(name);
        if (with_logs) // the server takes them
            begin_log_anew();
    }

    void recover() {
        std::vector<std::string> names = server().saved();
        if (names.empty() || m_unfinished)
            return;
        Recovery recovery = {.server = m_server};
        if (!one_in(3)) {
            std::set<std::string> chosen;
            for (std::uint64_t left = 1 + m_dice.below(2); left > 0; --left)
                chosen.insert(one_of(names));
            recovery.names = {chosen.begin(), chosen.end()};
        }
        if (one_in(2))
            recovery.to = random_moment();
        if (one_in(4))
            recovery.into = server().folder + "/into";
        recovery.new_dbiid = one_in(12);
        Kill kill;
        if (one_in(5))
            kill = {static_cast<Victim>(m_dice.below(3)), 1 + m_dice.below(250)};
        run_recovery(recovery, {}, kill);
    }

    // What clears a folder goes by age: both names of a file, or none.
    void copies_vanish() {
        m_doing += ", copies vanish";
        std::map<ino_t, bool> goes;
        for (const auto& entry : fs::recursive_directory_iterator(server().temporary())) {
            struct stat status {};
            ::lstat(entry.path().c_str(), &status);
            bool old = goes.try_emplace(status.st_ino, one_in(2)).first->second;
            if (old && entry.is_regular_file())
                fs::remove(entry.path());
        }
    }

    void abandon_recovery() {
        m_doing += ", abandon";
        Files before = files_of_servers();
        Run run = qrtln({"recover", "--abandon", "--json"});
        require(run.exit_code == 0, "a recovery can be given up", run.errors);
        m_unfinished.reset();
        Files after = files_of_servers();
        for (const auto& [path, digest] : before) // archived: the recovery may have brought it back
            require(!path.ends_with(".TXN") || after.contains(path) || is_archived(digest),
                    "no log of the server is removed", path);
        settle();
    }

    // A recovery that waits or was killed: users work on, its copies vanish, it is gone on with or
    // given up.
    void go_on_with_recovery() {
        turn_to(m_unfinished->server);
        if (one_in(2))
            for (const std::string& name : server().live())
                if (one_in(3))
                    commit(name);
        if (!m_options.calm && one_in(4))
            copies_vanish();
        if (!m_options.calm && one_in(5)) {
            m_doing += ", new log";
            remove_logs();
            begin_log_anew();
        }
        if (one_in(3)) {
            abandon_recovery();
            return;
        }
        m_doing += ", recover";
        Recovery recovery = *m_unfinished;
        recovery.resumed = true;
        Run run = qrtln({"recover", "--json"});
        if (!is_unfinished())
            m_unfinished.reset();
        require_told_recovery(recovery, run);
        fs::remove_all(server().folder + "/into");
        if (!m_unfinished)
            settle();
    }

    std::int64_t m_barrier = 0; // seconds: moments up to it came more than once
};

} // namespace qrtln::torture
