// Proof by model: random histories of a simulated server are recovered to random moments, and every
// database must hold exactly what it held at that moment. Recoveries are also killed, anywhere, and
// gone on with by a second call.
//
//   recovery_model [--histories N] [--moments N] [--kills N] [--rounds N] [--seed FIRST]
//
// Prints a line for each history, with its seed, and the sums; ends with 1 when anything differs.
#include "notes_simulator/offline.h"
#include "notes_simulator/use_mark.h"
#include "tests/torture/server_history.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <thread>

namespace fs = std::filesystem;
using namespace qrtln::torture;
using nlohmann::json;

namespace {

constexpr int exit_usage = 2;
constexpr int exit_locked = 11;
constexpr const char* as_played = "played"; // the state that a history left

struct Options {
    int histories = 2;
    int moments = 6;
    int kills = 4;
    int rounds = 3;
    std::uint64_t seed = 1;
    bool keep = false;
};

struct Sums {
    std::size_t commits = 0;
    std::size_t sets = 0;
    int moments = 0;
    int refused = 0; // requests for a moment before the first set
    int kills = 0;
    int second_tries = 0;
    int left_offline = 0; // killed with a database in its place that was not online yet
    int databases = 0;    // that were compared
    int mismatches = 0;
};

class FolderOfHistory {
  public:
    explicit FolderOfHistory(bool keep) : m_keep(keep) {
        std::string pattern = (fs::temp_directory_path() / "qrtln-model_XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("cannot create " + pattern);
        m_path = pattern;
    }
    ~FolderOfHistory() {
        std::error_code ignored;
        if (m_keep)
            std::cout << "  kept: " << m_path << "\n";
        else
            fs::remove_all(m_path, ignored);
    }
    FolderOfHistory(const FolderOfHistory&) = delete;
    FolderOfHistory& operator=(const FolderOfHistory&) = delete;
    const std::string& path() const { return m_path; }
    void keep() { m_keep = true; }

  private:
    std::string m_path;
    bool m_keep;
};

// What befalls the server before a recovery.
enum class Loss { nothing_beside, nothing, some_databases, data_folder, data_and_logs };

constexpr std::array loss_names = {"beside the live ones", "over the live ones",
                                   "after losing databases", "after losing the data folder",
                                   "after losing data and logs"};

std::string moment_text(std::optional<std::int64_t> moment) {
    if (!moment)
        return "the end";
    std::array<char, 32> text{};
    std::time_t time = *moment;
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    return text.data();
}

class Trial {
  public:
    Trial(History& history, Sums& sums) : m_history(history), m_sums(sums) {}
    void recover_to_moments(int count);
    void kill_recoveries(int count);
    bool failed() const { return m_failed; }

  private:
    std::optional<std::int64_t> random_moment(Loss loss);
    void ask_for_too_much();
    void recover(std::optional<std::int64_t> moment, Loss loss);
    void kill_once(std::optional<std::int64_t> moment, Loss loss,
                   const std::vector<std::string>& calls, bool before_online);
    Kill random_kill(const std::vector<std::string>& calls);
    std::optional<Kill> kill_before_online(const std::vector<std::string>& calls);
    void harm(Loss loss);
    std::vector<std::string> words(std::optional<std::int64_t> moment, Loss loss) const;
    void compare(std::optional<std::int64_t> moment, Loss loss);
    void compare_database(const std::string& name, std::optional<std::int64_t> moment, Loss loss);
    void mismatch(const std::string& text);

    History& m_history;
    Sums& m_sums;
    std::string m_doing; // for messages
    bool m_failed = false;
};

void Trial::mismatch(const std::string& text) {
    ++m_sums.mismatches;
    m_failed = true;
    std::cout << "  MISMATCH, " << m_doing << ": " << text << "\n";
}

std::vector<std::string> Trial::words(std::optional<std::int64_t> moment, Loss loss) const {
    std::vector<std::string> words = {"recover", "--all", "--json"};
    if (moment)
        words.insert(words.end(), {"--to", moment_text(moment)});
    if (loss == Loss::nothing_beside)
        words.insert(words.end(), {"--into", m_history.scratch() + "/into"});
    return words;
}

void Trial::harm(Loss loss) {
    std::vector<std::string> words = {"lose", m_history.server_folder()};
    switch (loss) {
    case Loss::nothing_beside:
    case Loss::nothing:
        return;
    case Loss::some_databases:
        for (const auto& [name, database] : m_history.databases())
            if (words.size() == 2 || m_history.below(2) == 0)
                words.push_back(name);
        break;
    case Loss::data_and_logs:
        words.emplace_back("--logs");
        [[fallthrough]];
    case Loss::data_folder:
        words.emplace_back("--data");
        break;
    }
    m_history.simulate(words);
    if (loss == Loss::data_and_logs)
        fs::remove(m_history.server_folder() + "/logs");
}

// A moment after the first set was whole, or the end of the log.
std::optional<std::int64_t> Trial::random_moment(Loss loss) {
    std::int64_t first = m_history.first_set_ended();
    // What was committed while the newest set was made may, or may not, be in the logs that it has.
    bool only_stored_logs = loss == Loss::data_and_logs;
    std::int64_t last = only_stored_logs ? m_history.newest_set_started() : m_history.ended();
    if (!only_stored_logs && m_history.below(6) == 0)
        return std::nullopt;
    if (last <= first)
        return first + 1;
    return first + 1 +
           static_cast<std::int64_t>(m_history.below(static_cast<std::uint64_t>(last - first)));
}

// A moment that no set is older than.
void Trial::ask_for_too_much() {
    m_doing = "a moment before the first set";
    ++m_sums.refused;
    Run run = m_history.qrtln(words(m_history.first_set_ended(), Loss::nothing));
    if (run.exit_code == 0 || run.errors.find("before") == std::string::npos)
        mismatch("it was not refused: " + std::to_string(run.exit_code) + " " + run.errors);
    for (const auto& [name, database] : m_history.databases())
        if (read_content(m_history.path_of(name)) != database.commits.back().content)
            mismatch(name + " was changed");
}

void Trial::recover_to_moments(int count) {
    ask_for_too_much();
    for (int i = 0; i < count; ++i) {
        // Beside the live databases every second time, and each loss in its turn.
        auto loss = i % 2 == 0 ? Loss::nothing_beside : static_cast<Loss>(1 + i / 2 % 4);
        std::optional<std::int64_t> moment = random_moment(loss);
        ++m_sums.moments;
        recover(moment, loss);
    }
}

void Trial::recover(std::optional<std::int64_t> moment, Loss loss) {
    m_doing = moment_text(moment) + " " + loss_names[static_cast<std::size_t>(loss)];
    harm(loss);
    Run run = m_history.qrtln(words(moment, loss));
    if (run.exit_code != 0) {
        mismatch("the recovery ended with " + std::to_string(run.exit_code) + ": " + run.errors +
                 run.output);
    } else {
        compare(moment, loss);
    }
    fs::remove_all(m_history.scratch() + "/into");
    if (loss != Loss::nothing_beside)
        m_history.bring_back(as_played);
}

void Trial::compare(std::optional<std::int64_t> moment, Loss loss) {
    for (const auto& [name, database] : m_history.databases())
        compare_database(name, moment, loss);
}

void Trial::compare_database(const std::string& name, std::optional<std::int64_t> moment,
                             Loss loss) {
    const ModelDatabase& database = m_history.databases().at(name);
    bool beside = loss == Loss::nothing_beside;
    std::string file =
        beside ? m_history.scratch() + "/into" + m_history.path_of(name) : m_history.path_of(name);
    if (database.newest_before(moment) == nullptr) {
        // It was not there yet, or in no set: nothing may come back in its name.
        bool lost = beside || loss == Loss::data_folder || loss == Loss::data_and_logs;
        if (lost && fs::exists(file))
            mismatch(name + " came back, although no set had it");
        return;
    }
    ++m_sums.databases;
    try {
        std::string wrong = database.wrong_with(file, moment);
        if (wrong.empty() && !beside)
            m_history.use(name);
        if (!wrong.empty())
            mismatch(name + ": " + wrong);
    } catch (const std::exception& failure) {
        mismatch(name + ": " + failure.what());
    }
}

void Trial::kill_recoveries(int count) {
    constexpr std::array losses = {Loss::data_folder, Loss::nothing, Loss::some_databases,
                                   Loss::nothing_beside};
    for (int i = 0; i < count;) {
        Loss loss = losses[m_history.below(losses.size())];
        std::optional<std::int64_t> moment = random_moment(loss);
        m_doing =
            "traced, " + moment_text(moment) + " " + loss_names[static_cast<std::size_t>(loss)];
        harm(loss);
        Run whole = m_history.qrtln(words(moment, loss), true);
        if (whole.exit_code != 0)
            mismatch("the recovery ended with " + std::to_string(whole.exit_code) + ": " +
                     whole.errors);
        fs::remove_all(m_history.scratch() + "/into");
        m_history.bring_back(as_played);
        for (int same = 0; same < 3 && i < count; ++same, ++i)
            kill_once(moment, loss, whole.calls, same == 0);
    }
}

// A database is in its place then, without a copy that waits, and still offline.
std::optional<Kill> Trial::kill_before_online(const std::vector<std::string>& calls) {
    std::vector<std::size_t> removals;
    for (std::size_t i = 0; i < calls.size(); ++i)
        if (calls[i] == removal_of_copy)
            removals.push_back(i + 1);
    if (removals.empty())
        return std::nullopt;
    return Kill{m_history.below(2) == 0 ? Victim::everything : Victim::module_process,
                removals[m_history.below(removals.size())] + 1};
}

// Anywhere, or at one of the few calls that put something in its place or take it away.
Kill Trial::random_kill(const std::vector<std::string>& calls) {
    Kill kill;
    kill.victim = static_cast<Victim>(m_history.below(3));
    std::vector<std::size_t> turning_points;
    for (std::size_t i = 0; i < calls.size(); ++i)
        if (calls[i] == "remove" || calls[i] == removal_of_copy || calls[i] == "rename" ||
            calls[i] == "link")
            turning_points.push_back(i);
    if (m_history.below(2) == 0 && !turning_points.empty())
        kill.call = turning_points[m_history.below(turning_points.size())] + 1 + m_history.below(2);
    else
        kill.call = 1 + m_history.below(calls.size());
    return kill;
}

void Trial::kill_once(std::optional<std::int64_t> moment, Loss loss,
                      const std::vector<std::string>& calls, bool before_online) {
    Kill kill =
        (before_online ? kill_before_online(calls) : std::nullopt).value_or(random_kill(calls));
    m_doing = moment_text(moment) + " " + loss_names[static_cast<std::size_t>(loss)] + ", " +
              victim_name(kill.victim) + " killed at call " + std::to_string(kill.call) + " of " +
              std::to_string(calls.size());
    harm(loss);
    Run first = m_history.qrtln(words(moment, loss), true, kill);
    m_doing += first.calls.empty()
                   ? ""
                   : " (" + first.calls[std::min(kill.call, first.calls.size()) - 1] + ")";
    m_sums.kills += first.killed ? 1 : 0;
    Run second = first;
    if (first.exit_code != 0) {
        ++m_sums.second_tries;
        do { // the module's process may still be at it
            second = m_history.qrtln({"recover", "--json"});
        } while (second.exit_code == exit_locked);
        m_sums.left_offline +=
            second.output.find("the server cannot open it") != std::string::npos ? 1 : 0;
        // Killed before it had begun, or after it had ended: the command is given again.
        if (second.exit_code == exit_usage)
            second = m_history.qrtln(words(moment, loss));
    }
    if (second.exit_code != 0)
        mismatch("the second try ended with " + std::to_string(second.exit_code) + ": " +
                 second.errors + second.output);
    else
        compare(moment, loss);
    fs::remove_all(m_history.scratch() + "/into");
    m_history.bring_back(as_played);
}

void run_history(const Programs& programs, const Options& options, std::uint64_t seed, Sums& sums) {
    auto begin = std::chrono::steady_clock::now();
    Sums before = sums;
    FolderOfHistory folder(options.keep);
    History history(programs, folder.path(), seed);
    history.play(options.rounds);
    history.keep(as_played);
    Trial trial(history, sums);
    trial.recover_to_moments(options.moments);
    trial.kill_recoveries(options.kills);
    sums.commits += history.commits();
    sums.sets += history.sets();
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::cout << "seed " << seed << ": " << history.commits() << " commits, " << history.sets()
              << " sets, " << sums.moments - before.moments << " moments ("
              << sums.refused - before.refused << " more too early), " << sums.kills - before.kills
              << " kills, " << sums.second_tries - before.second_tries << " second tries, "
              << sums.databases - before.databases << " databases compared, "
              << sums.mismatches - before.mismatches << " mismatches, "
              << static_cast<int>(took.count()) << " s" << std::endl;
}

void add_options(CLI::App& app, Options& options) {
    app.add_option("--histories", options.histories, "How many")->capture_default_str();
    app.add_option("--moments", options.moments, "Recoveries of each to a random moment")
        ->capture_default_str();
    app.add_option("--kills", options.kills, "Killed recoveries of each")->capture_default_str();
    app.add_option("--rounds", options.rounds, "Backups in each")->capture_default_str();
    app.add_option("--seed", options.seed, "Of the first history")->capture_default_str();
    app.add_flag("--keep", options.keep, "Keep the folders of the histories");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Recovers simulated servers to random moments of random histories and compares "
                 "every database with a model"};
    Options options;
    add_options(app, options);
    CLI11_PARSE(app, argc, argv);
    try {
        ::setenv("TZ", "UTC", 1);
        Programs programs = {QRTLN_EXECUTABLE, QRTLN_DOMINO_SIM, QRTLN_SIMULATOR_DIRECTORY};
        Sums sums;
        for (int i = 0; i < options.histories; ++i)
            run_history(programs, options, options.seed + static_cast<std::uint64_t>(i), sums);
        std::cout << options.histories << " histories, " << sums.commits << " commits, "
                  << sums.sets << " sets, " << sums.moments << " moments, " << sums.kills
                  << " kills (" << sums.left_offline << " left one offline), " << sums.databases
                  << " databases compared, " << sums.mismatches << " mismatches" << std::endl;
        return sums.mismatches == 0 && sums.databases > 0 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "recovery_model: " << failure.what() << "\n";
        return 1;
    }
}
