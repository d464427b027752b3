// Random histories of two simulated servers with one store: users' work, what befalls databases,
// logs, clocks and disks, and backups, restores and recoveries in between, some of which fail or
// are killed. Every command is held to the same rules (model_rules.h): what was told is so, what
// was not named is as before, every log that left a server is whole in the store, every database
// that changed is in a set, or owed, or named.
//
// Prints a line for each history; one ends at the first rule that does not hold, with its seed.
// Ends with 1 when there is any.
#include "tests/support/stored_content.h"
#include "tests/support/temporary_folder.h"
#include "tests/torture/model_commands.h"

#include <CLI/CLI.hpp>

using namespace qrtln::torture;

namespace {

constexpr std::int64_t hundredth = nanoseconds / 100;
constexpr std::int64_t day = 24 * 3600 * nanoseconds;
constexpr int steps_of_history = 30;

class Steps : public Commands {
  public:
    using Commands::Commands;

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

    // The server refuses it while a backup of the database goes on, which a killed one does.
    void compact() try {
        if (std::string name = choose(server().live()); !name.empty())
            server().compact(name);
    } catch (const std::exception& refusal) {
        require(m_leftovers && std::string(refusal.what()).find("a backup of") != std::string::npos,
                "users can work", refusal.what());
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
        const Saved& saved = server().database(name).saved.back();
        if (is_damaged(saved))
            return;
        qrtln::test::flip_content(m_store, saved.item);
        m_harmed.insert(fs::path(qrtln::test::content_place(m_store, saved.item).file).stem());
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
