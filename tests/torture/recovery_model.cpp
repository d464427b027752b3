// Random histories of two simulated servers with one store: users' work, what befalls databases,
// logs, clocks and disks, and backups, restores and recoveries in between, some of which fail or
// are killed. Every command is held to the same rules (model_rules.h): what was told is so, what
// was not named is as before, every log that left a server is whole in the store, every database
// that changed is in a set, or owed, or named.
//
// Prints a line for each history; one ends at the first rule that does not hold, with its seed.
// Ends with 1 when there is any.
#include "tests/support/temporary_folder.h"
#include "tests/torture/model_rules.h"

#include <CLI/CLI.hpp>

using namespace qrtln::torture;

namespace {

constexpr std::int64_t hundredth = nanoseconds / 100;
constexpr std::int64_t day = 24 * 3600 * nanoseconds;
constexpr int steps_of_history = 30;

void flip_a_bit(const std::string& file) {
    std::string bytes = bytes_of(file);
    bytes[bytes.size() / 2] ^= 4;
    std::ofstream(file, std::ios::binary) << bytes;
}

class Steps : public Rules {
  public:
    using Rules::Rules;

    void play() {
        static constexpr Step steps[] = {
            {"write", 22, true, &Steps::write},
            {"back up", 26, true, &Steps::back_up},
            {"compact", 8, true, &Steps::compact},
            {"create", 5, true, &Steps::create},
            {"remove", 5, true, &Steps::remove},
            {"restore", 7, true, &Steps::restore},
            {"restore all", 2, true, &Steps::restore_all},
            {"recover", 14, true, &Steps::recover},
            {"lose data", 2, true, &Steps::lose_data},
            {"lose logs", 3, false, &Steps::lose_logs},
            {"change clock", 4, false, &Steps::change_clock},
            {"harm index", 3, false, &Steps::harm_index},
            {"harm object", 2, false, &Steps::harm_object},
            {"destroy database", 2, false, &Steps::destroy_database},
            {"unmount", 2, false, &Steps::unmount},
        };
        std::vector<const Step*> weighted;
        for (const Step& step : steps)
            if (step.calm || !m_options.calm)
                weighted.insert(weighted.end(), step.weight, &step);
        for (int i = 0; i < steps_of_history; ++i) {
            const Step* step = one_of(weighted);
            turn_to(one_in(5) ? 1 : 0);
            // A store with a recovery that is not finished takes no other one.
            static constexpr Step go_on = {"go on", 0, true, &Steps::go_on_with_recovery};
            if (m_unfinished && !one_in(4))
                step = &go_on;
            if (i == 0)
                step = &steps[1];
            m_doing = "step " + std::to_string(i) + ", " + step->name;
            m_clock.advance(static_cast<std::int64_t>(m_dice.below(40'000)) * hundredth);
            (this->*step->take)();
            stamp();
            require_kept_sets();
        }
        require_whole_store();
        // What the sets and logs of each server come to in the end.
        for (std::size_t number = 0; number < m_servers.size() && !m_unfinished; ++number) {
            turn_to(number);
            m_doing = "the end";
            if (!server().saved().empty())
                run_recovery({.server = number, .into = server().folder + "/into"});
        }
    }

  private:
    struct Step {
        const char* name;
        unsigned weight;
        bool calm;
        void (Steps::*take)();
    };

    void write() {
        std::vector<std::string> names = server().live();
        if (names.empty())
            return;
        bool sharp = one_in(3); // at a full second, and a hundredth after it
        if (sharp)
            m_clock.set((seconds() + 1) * nanoseconds);
        for (std::uint64_t left = 1 + m_dice.below(12); left > 0; --left) {
            commit(one_of(names));
            m_clock.advance((sharp ? 1 : static_cast<std::int64_t>(m_dice.below(150))) * hundredth);
        }
    }

    // One of these, which is what the step is about; empty when there are too few.
    std::string choose(const std::vector<std::string>& names, std::size_t at_least = 1) {
        if (names.size() < at_least)
            return {};
        const std::string& name = one_of(names);
        m_doing += " " + name;
        return name;
    }

    void compact() {
        if (std::string name = choose(server().live()); !name.empty())
            server().compact(name);
    }

    void create() {
        // Some have names that the index of instances cannot hold.
        static constexpr const char* forms[] = {"mail/new#.nsf", "mail/a=b#.nsf", "line\nend#.nsf",
                                                "plain#.nsf",    "unlogged#.nsf", "form#.ntf"};
        std::string name = one_of(forms);
        name.replace(name.find('#'), 1, std::to_string(++m_created));
        m_doing += " " + name;
        fs::create_directories(fs::path(server().path_of(name)).parent_path());
        server().create(name, m_dice.below(1000), !name.starts_with("unlogged"));
    }

    void remove() {
        std::string name = choose(server().live(), 4);
        if (name.empty())
            return;
        server().simulate({"lose", name});
        server().database(name).live = false;
        if (one_in(3))
            recover();
    }

    void lose_everything() {
        server().simulate({"lose", "--data"});
        for (auto& [name, database] : server().databases)
            database.live = false;
    }

    void lose_data() {
        lose_everything();
        m_doing += ", then";
        one_in(3) ? restore_all() : recover();
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

    void lose_logs() {
        bool new_log = one_in(2);
        remove_logs();
        if (one_in(2)) { // with the disk, and the data with it
            fs::remove(server().server_folder() + "/logs");
            lose_everything();
            m_doing += " and data, then";
            one_in(2) ? restore_all() : recover();
            fs::create_directories(server().server_folder() + "/logs");
        } else if (!new_log) {
            m_doing += ", then";
            recover();
        }
        begin_log_anew();
    }

    void change_clock() {
        m_barrier = std::max(m_barrier, seconds());
        bool back = one_in(2);
        m_doing += back ? " back" : " forward";
        m_clock.advance((back ? -1 : 1) * static_cast<std::int64_t>(1 + m_dice.below(48)) * day /
                        16);
        if (back) { // whoever backs up then hears of it
            write();
            back_up();
        }
    }

    void harm_index() {
        std::string index = server().index_file();
        if (!fs::exists(index) || fs::file_size(index) == 0)
            return;
        m_index_harmed = true;
        if (one_in(2))
            flip_a_bit(index);
        else
            fs::remove(index);
    }

    void harm_object() {
        std::string name = choose(server().saved());
        if (name.empty())
            return;
        const std::string& object = server().database(name).saved.back().object;
        if (m_damaged.insert(object).second)
            flip_a_bit(m_store + "/objects/" + object.substr(0, 2) + "/" + object + ".zst");
    }

    void destroy_database() {
        std::string name = choose(server().live(), 3);
        if (name.empty())
            return;
        std::string path = server().path_of(name);
        ModelDatabase& database = server().database(name);
        if (one_in(2))
            std::ofstream(path, std::ios::trunc).close();
        else
            std::ofstream(path, std::ios::in | std::ios::binary) << std::string(4096, '\xDB');
        database.live = false;
        Recovery recovery = {.server = m_server, .names = {name}};
        bool plain = !m_unfinished && is_plain(recovery, name);
        if (!database.saved.empty() && !m_unfinished)
            run_recovery(recovery);
        require(!plain || database.live, "a database that is none any more is recovered", name);
        if (!database.live)
            fs::remove(path); // the administrator gives it up
    }

    // A folder of databases is away while backups run.
    void unmount() {
        std::string folder = server().path_of("mail");
        std::string away = server().folder + "/unmounted";
        if (!fs::exists(folder) || m_unfinished)
            return;
        fs::rename(folder, away);
        if (one_in(2))
            fs::create_directory(folder);
        std::vector<ModelDatabase*> databases;
        for (auto& [name, database] : server().databases)
            if (name.starts_with("mail/") && std::exchange(database.live, false))
                databases.push_back(&database);
        for (std::uint64_t left = 1 + m_dice.below(2); left > 0; --left) {
            back_up();
            write();
        }
        fs::remove_all(folder);
        fs::rename(away, folder);
        for (ModelDatabase* database : databases)
            database->live = true;
    }

    void back_up() {
        static constexpr const char* levels[] = {"full", "full", "incr", "incr",
                                                 "incr", "diff", "diff", "copy"};
        std::string level = m_sets.empty() ? "full" : one_of(levels);
        std::vector<std::string> words = {"backup", "--json", "--level", level};
        if (one_in(3) && (level == "incr" || level == "diff"))
            words.emplace_back("--auto-full");
        m_doing += " " + level;
        static constexpr std::pair<const char*, const char*> faults[] = {
            {"QRTLN_MODEL_FAULTS", "read .TXN 32768"},
            {"QRTLN_MODEL_FAULTS", "rename qrtln_DBIID.ini 5"},
            {"QRTLN_MODEL_FAULTS", "rename qrtln_DBIID.ini 5"},
            {"NOTES_SIM_FAULTS", "ConvertTIMEDATEToText=259"},
            {"QRTLN_MODEL_FAULTS", "lookup .zst 116;rename .json 5"},
            {"NOTES_SIM_FAULTS", "NSFEndArchivingLogs=259"}};
        constexpr std::size_t junk = std::size(faults);
        const std::string junk_file = server().path_of("broken.nsf");
        Environment fault;
        Kill kill;
        if (!m_options.calm && !one_in(2)) {
            std::size_t which = m_dice.below(junk + 2);
            if (which < junk)
                fault.insert(faults[which]);
            else if (which == junk)
                std::ofstream(junk_file) << "no database\n";
            else
                kill = {static_cast<Victim>(m_dice.below(3)), 1 + m_dice.below(300)};
        }
        for (const auto& [name, value] : fault)
            m_doing += ", " + value;
        m_doing += kill.call != 0 ? ", killed" : "";
        std::vector<std::string> names = server().live();
        bool busy = fault.empty() && kill.call == 0 && one_in(6) && !names.empty();
        note_commits();
        Files before = files_of_servers();
        Run run;
        if (busy) { // the clock runs, so that commits and copies are seconds apart
            m_doing += ", busy";
            std::int64_t begun = m_clock.now();
            m_clock.go(20);
            Started backup(server().command(words), {}, server().folder);
            for (std::size_t i = 0; !backup.ended(); ++i) // how often depends on the machine
                commit(names[i % names.size()]);
            run = backup.finish();
            stand_still_after(begun);
        } else {
            run = qrtln(words, fault, kill);
        }
        fs::remove(junk_file);
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
    int m_created = 0;
};

// Returns whether every rule held.
bool play_history(std::uint64_t seed, ModelOptions options) {
    options.calm = options.calm || seed % 3 == 0;
    TemporaryFolder folder;
    Steps model(folder.path(), seed, options);
    std::string problem;
    try {
        model.play();
    } catch (const std::exception& failure) {
        problem = "VIOLATION at " + model.doing() + ": " + failure.what();
    }
    std::cout << "seed " << seed << (options.calm ? " (calm): " : ": ")
              << (problem.empty() ? "ok" : problem) << std::endl;
    return problem.empty();
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Plays random histories of servers and a store, and holds every command to rules"};
    ModelOptions options;
    std::uint64_t histories = 6;
    std::uint64_t first = 1;
    app.add_option("--histories", histories, "How many")->capture_default_str();
    app.add_option("--seed", first, "Of the first history")->capture_default_str();
    app.add_flag("--calm", options.calm, "No damage, no clock that changes, no killed backups");
    app.add_flag("--verbose", options.verbose, "Show every command");
    CLI11_PARSE(app, argc, argv);
    be_altered(argv);
    int violations = 0;
    for (std::uint64_t seed = first; seed < first + histories; ++seed)
        violations += play_history(seed, options) ? 0 : 1;
    std::cout << histories << " histories, " << violations << " with a violation" << std::endl;
    return violations == 0 ? 0 : 1;
} catch (const std::exception& failure) {
    std::cerr << "recovery_model: " << failure.what() << "\n";
    return 1;
}
