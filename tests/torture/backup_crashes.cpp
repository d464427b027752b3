// Kills backups, the forgetting of sets and the conversion of stores: at each call that changes a
// file, at random moments, by power cuts that take what was not flushed; and fills the disk at each
// write. Whatever the moment, the index of databases is the old or the new one, no transaction log
// is marked as archived that the store does not hold, the store verifies, and the next run saves
// what the killed one owed, without a hand.
//
// Prints the sums; ends with 1 when a rule was violated. With a planted defect it ends with 0 when
// the rule that the defect violates was found violated.
#include "client/store/canonical_json.h"
#include "notes_simulator/log/transaction_log.h"
#include "notes_simulator/server/server_lock.h"
#include "tests/support/temporary_folder.h"
#include "tests/torture/crash_scenarios.h"
#include "tests/torture/durable_disk.h"
#include "tests/torture/model.h"

#include <CLI/CLI.hpp>

using namespace qrtln::torture;

namespace {

// Of each scenario, in the short form: calls that change files at which a run is killed.
constexpr std::size_t few_calls = 2;

struct Options {
    std::string scenario;
    std::string plant;
    bool all = false;
    std::pair<std::size_t, std::size_t> share = {1, 1};
    std::uint64_t seed = 1;

    bool has(std::size_t call) const { return call % share.second == share.first % share.second; }
};

class Crashes : private Model {
  public:
    Crashes(const Options& options, const std::string& folder)
        : Model(folder, options.seed, {.servers = 1, .calm = true}), m_options(options),
          m_random(options.seed + options.share.first * 1'000'000) {
        make_server();
    }

    int find_violations() {
        for (const Scenario& scenario : make_scenarios()) {
            if (!m_options.scenario.empty() && m_options.scenario != scenario.name())
                continue;
            kill_often(scenario);
            std::cout << scenario.name() << ": " << scenario.calls << " calls" << std::endl;
        }
        std::cout << m_kills << " kills, of which " << m_missed
                  << " came after the end, or met no module yet; " << m_violations << " violations"
                  << std::endl;
        return m_violations == 0 && m_kills > 0 ? 0 : 1;
    }

    // From the end on, where a run gives its word: until the rule is violated.
    int find_planted(const Plant& plant) {
        bool aged = plant.state == std::string("aged");
        if (aged)
            make_aged();
        Scenario scenario = look_at(plant.state, aged ? "forget" : "full");
        m_faults = {{"QRTLN_MODEL_FAULTS", plant.faults}};
        bring_back(plant.state);
        CallObserver counter;
        for (std::size_t call = work(scenario, {}, &counter).calls + 1; call > 0; --call)
            if (try_at(scenario, plant.kind, {.call = call}).starts_with(plant.rule)) {
                std::cout << plant.name << " was found by its rule at kill " << m_kills
                          << std::endl;
                return 0;
            }
        std::cout << plant.name << " was not found" << std::endl;
        return 1;
    }

  private:
    struct Kept {
        std::int64_t time = 0;
        std::map<std::string, ModelDatabase> databases;
        std::map<std::string, Set> sets;
    };

    // --- the server and the store

    // Databases that are logged and not, a template, a folder; since the last set one is new, one
    // was compacted, others changed, and extents are full.
    void make_server() {
        auto change_all = [this] {
            for (const std::string& name : server().live())
                commit(name);
        };
        change_all();
        for (const char* level : {"full", "full", "incr"}) { // the second one gives entries
            back_up_well(level);
            change_all();
        }
        server().create("mail/new.nsf", m_options.seed);
        for (const char* name : {"mail/user1.nsf", "names.nsf"})
            server().compact(name);
        // Only the index tells that this one was compacted.
        server().simulate({"saved", "mail/user1.nsf"});
        while (waiting_extents().size() < 2)
            change_all();
        keep("changed");
    }

    void copy_all(const std::string& from, const std::string& to) const {
        fs::create_directories(to);
        for (const char* part : {"/disk", "/a"})
            fs::remove_all(to + part);
        Run copy = run_program({"/bin/cp", "-a", from + "/disk", from + "/a", to});
        if (copy.exit_code != 0)
            throw std::runtime_error("cannot copy the server: " + copy.errors);
    }

    // Server, store and model as they are now, to be brought back however often they are changed.
    void keep(const std::string& name) {
        copy_all(m_folder, m_folder + "/kept-" + name);
        m_kept[name] = {m_clock.now(), server().databases, m_sets};
    }

    void bring_back(const std::string& name) {
        copy_all(m_folder + "/kept-" + name, m_folder);
        m_clock.set(m_kept.at(name).time);
        server().databases = m_kept.at(name).databases;
        m_sets = m_kept.at(name).sets;
    }

    Run back_up(const std::string& level, Kill kill = {}, const CallObserver* observer = nullptr) {
        note_commits();
        return qrtln({"backup", "--json", "--level", level}, m_faults, kill, observer);
    }

    // What the scenario kills.
    Run work(const Scenario& scenario, Kill kill = {}, const CallObserver* observer = nullptr) {
        if (scenario.is_backup())
            return back_up(scenario.command, kill, observer);
        std::vector<std::string> words = {scenario.command};
        if (scenario.command == "forget")
            words.insert(words.end(), {"--keep-last", "1"});
        return qrtln(words, m_faults, kill, observer);
    }

    // No store, and nothing that tells of one.
    void begin_anew() {
        bring_back("changed");
        fs::remove_all(m_store);
        fs::remove(server().path_of("qrtln_archive.json")); // it would keep another store out
        m_sets.clear();
        for (auto& [name, database] : server().databases)
            database.saved.clear();
    }

    // A store of an earlier release, with whole objects.
    void make_older() {
        begin_anew();
        for (const char* folder : {"/objects", "/sets", "/runtime"})
            fs::create_directories(m_store + folder);
        write_file(m_store + "/store.json",
                   qrtln::to_canonical({{"format", 1}, {"type", "qrtln store"}}));
        back_up_well("full");
        commit("mail/user1.nsf");
        back_up_well("full");
        keep("older");
    }

    // Several sets of which only the last are wanted; most of what was stored first is used no
    // more.
    void make_aged() {
        bring_back("changed");
        for (int i = 0; i < 2; ++i) {
            for (const std::string& name : server().live())
                if (name != "names.nsf")
                    commit(name);
            back_up_well("full");
        }
        keep("aged");
    }

    void back_up_well(const std::string& level) {
        Run run = back_up(level);
        require(run.exit_code == 0, rule::next_run, run.errors);
        take_new_sets();
    }

    std::string index() const { return read_file(server().index_file()); }

    // The extents that wait to be archived, with the SHA-256 of their bytes.
    std::map<std::uint32_t, std::string> waiting_extents() const {
        std::map<std::uint32_t, std::string> waiting;
        notes_sim::ServerLock lock(server().server());
        notes_sim::TransactionLog log(server().server(), lock);
        for (std::uint32_t number : log.readyExtents())
            waiting[number] = qrtln::sha256_hex(read_file(log.extentPath(number)));
        return waiting;
    }

    // A run that is not killed shows what there is to kill, and what the index may be.
    Scenario look_at(const std::string& kept, const std::string& command) {
        Scenario scenario = {.kept = kept, .command = command};
        bring_back(kept);
        std::size_t waiting = waiting_extents().size();
        CallObserver watcher;
        watcher.before_call = [&] {
            ++scenario.calls;
            scenario.indexes.insert(index());
            if (fs::exists(m_store + "/runtime/owed.jsonl"))
                scenario.owing.push_back(scenario.calls);
        };
        Run whole = work(scenario, {}, &watcher);
        scenario.moments = whole.moments;
        scenario.indexes.insert(index());
        if (whole.exit_code != 0)
            throw std::runtime_error("a backup that was not killed failed: " + whole.errors);
        if (!scenario.is_backup())
            return scenario;
        if (waiting == waiting_extents().size() || scenario.indexes.size() < 2)
            throw std::runtime_error("the backup marks no extent, or does not change the index");
        // When the module dies over what is owed, the run goes on with what was asked for.
        bring_back(kept);
        (void)work(scenario, {.victim = Victim::module_process, .call = 1});
        scenario.indexes.insert(index());
        return scenario;
    }

    std::vector<Scenario> make_scenarios() {
        std::vector<Scenario> scenarios = {look_at("changed", "full"), look_at("changed", "incr")};
        // After a run whose databases were prepared and are in no set.
        bring_back("changed");
        const std::vector<std::size_t>& owing = scenarios.back().owing;
        (void)back_up("incr", {.call = owing.at(owing.size() / 2)});
        keep("owing");
        scenarios.push_back(look_at("owing", "incr"));
        begin_anew();
        keep("first");
        scenarios.push_back(look_at("first", "full"));
        make_aged();
        scenarios.push_back(look_at("aged", "forget"));
        make_older();
        scenarios.push_back(look_at("older", "convert"));
        return scenarios;
    }

    // --- kills

    // At all calls that change files in all ways, or at some spread over the run, the ways in turn;
    // and at moments, without power cuts. The last call is behind the end: what a run that
    // succeeded had flushed must be there, too.
    void kill_often(const Scenario& scenario) {
        std::size_t last = scenario.calls + 1;
        for (std::size_t call = 1; m_options.all && call <= last; ++call)
            for (const Kind& kind : kinds)
                if (m_options.has(call))
                    try_at(scenario, kind, {.call = call});
        for (std::size_t i = 0; !m_options.all && i < few_calls; ++i)
            try_at(scenario, kinds[m_next_kind++ % std::size(kinds)],
                   {.call = 1 + (last * i + m_random() % last) / few_calls});
        const std::size_t moments = m_options.all ? 252 / m_options.share.second : 1;
        for (std::size_t i = 0; i < moments; ++i)
            try_at(scenario, kinds[m_next_victim++ % 3 * 2],
                   {.moment = 1 + m_random() % scenario.moments});
    }

    // One kill, and all that must hold after it. Returns what does not, which is printed.
    std::string try_at(const Scenario& scenario, const Kind& kind, Kill kill) try {
        strike(scenario, kind, kill);
        judge_remains(scenario);
        if (m_options.plant.empty())
            judge_next_runs(scenario);
        return {};
    } catch (const std::exception& violation) {
        ++m_violations;
        std::cout << "  VIOLATED, " << m_doing << ": " << violation.what() << std::endl;
        return violation.what();
    }

    void strike(const Scenario& scenario, const Kind& kind, Kill kill) {
        bring_back(scenario.kept);
        m_waiting = waiting_extents();
        m_indexes = scenario.indexes;
        m_doing = scenario.name() + ", " + kind.name + " at call " + std::to_string(kill.call) +
                  " or moment " + std::to_string(kill.moment) + ", seed " +
                  std::to_string(m_options.seed);
        std::optional<DurableDisk> disk;
        CallObserver watcher;
        if (kind.cut) {
            disk.emplace(m_folder + "/disk");
            watcher.flushed = [&](const std::string& descriptor) { disk->flushed(descriptor); };
        }
        kill.victim = kind.victim;
        if (kind.disk_full) {
            m_faults = {{"QRTLN_MODEL_FAULTS", "full /disk/ " + std::to_string(kill.call)}};
            kill = {};
        }
        Run run = work(scenario, kill, kind.disk_full ? nullptr : &watcher);
        ++m_kills;
        m_missed += run.killed || run.exit_code != 0 ? 0 : 1;
        if (kind.disk_full)
            m_faults = {};
        if (kind.in_next_run)
            strike_next(scenario, watcher);
        if (disk)
            disk->cut(*kind.cut, m_random);
        take_new_sets();
    }

    // Kills it as well, or not. What it owes, and so its index, depends on the moment.
    void strike_next(const Scenario& scenario, CallObserver watcher) {
        std::size_t call = m_random() % 4 == 0 ? 0 : 1 + m_random() % scenario.calls;
        watcher.before_call = [this] { m_indexes.insert(index()); };
        Run next = work(scenario, {.call = call}, &watcher);
        watcher.before_call();
        m_doing += ", the next one at " + std::to_string(call);
        require(next.killed || next.exit_code == 0, rule::next_run, next.errors);
    }

    // --- judgement

    // What the killed run left.
    void judge_remains(const Scenario& scenario) {
        require(m_indexes.contains(index()), rule::index,
                "it has " + std::to_string(index().size()) +
                    " bytes and is neither the old nor the new one");
        std::map<std::uint32_t, std::string> left = waiting_extents();
        for (const auto& [number, digest] : m_waiting)
            require(left.contains(number) || is_archived(digest), rule::extents,
                    std::to_string(number) + " is marked as archived and in no set as it was");
        // Before the first run was whole there may be no store.
        if (fs::exists(m_store + "/store.json") || !scenario.indexes.contains(""))
            verify();
    }

    void verify() {
        Run run = qrtln({"verify"});
        require(run.exit_code == 0, whole_store, run.output + run.errors);
    }

    // Users go on, the same command is given again, and after a full backup an incremental one;
    // then everything is recovered beside the live databases.
    void judge_next_runs(const Scenario& scenario) {
        if (!scenario.is_backup()) { // it finishes what the killed one began
            Run run = work(scenario);
            require(run.exit_code == 0, rule::next_run, run.errors);
            Run told = qrtln({"verify"});
            require(told.output.find("belong to no") == std::string::npos, rule::leftovers,
                    told.output);
        }
        using Levels = std::vector<std::string>;
        for (const std::string& level :
             scenario.command == "incr" ? Levels{"incr"} : Levels{"full", "incr"}) {
            for (const char* name : {"mail/user1.nsf", "unlogged.nsf"})
                commit(name);
            back_up_well(level);
        }
        for (const auto& entry : fs::recursive_directory_iterator(m_folder + "/disk")) {
            std::string name = entry.path().filename();
            bool of_run_time = entry.path().parent_path().filename() == "runtime" &&
                               entry.path() != server().index_file() && name != "server.json";
            require(!name.ends_with(".tmp") && !of_run_time, rule::leftovers, name);
        }
        require(fs::is_empty(server().temporary()), rule::leftovers, "in the temporary directory");
        verify();
        std::string into = server().folder + "/into";
        Run recovery = qrtln({"recover", "--all", "--into", into});
        require(recovery.exit_code == 0, rule::databases, recovery.output + recovery.errors);
        for (const auto& [name, database] : server().databases) {
            const Saved& newest = database.saved.back();
            const Content& expected =
                database.logged ? database.present() : database.content_of(newest);
            std::string wrong = difference(expected, into + server().path_of(name));
            require(wrong.empty(), rule::databases, name + ": " + wrong);
        }
        fs::remove_all(into);
    }

    const Options& m_options;
    Environment m_faults;
    std::mt19937_64 m_random;
    std::map<std::string, Kept> m_kept;
    std::map<std::uint32_t, std::string> m_waiting; // when the killed run began
    std::set<std::string> m_indexes;                // that are the old one or a new one
    int m_kills = 0;
    int m_missed = 0;
    int m_violations = 0;
    std::size_t m_next_kind = 0;
    std::size_t m_next_victim = 0;
};

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Kills backups, and judges what they leave and what the next ones make of it"};
    Options options;
    app.add_option("--scenario", options.scenario, "Only this one")
        ->check(CLI::IsMember({"changed-full", "changed-incr", "owing-incr", "first-full",
                               "aged-forget", "older-convert"}));
    app.add_option("--plant", options.plant, "Look for this defect instead")
        ->check(CLI::IsMember({"marking", "flush", "index", "rewritten"}));
    app.add_flag("--long", options.all, "In every way at every call, and at 252 moments of each");
    app.add_option("--share", options.share,
                   "I N: of the long form each N-th call from the I-th on")
        ->check(CLI::Range(1, 252));
    app.add_option("--seed", options.seed, "Of everything random")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    be_altered(argv);
    TemporaryFolder folder;
    Crashes crashes(options, folder.path());
    for (const Plant& plant : plants)
        if (options.plant == plant.name)
            return crashes.find_planted(plant);
    return crashes.find_violations();
} catch (const std::exception& failure) {
    std::cerr << "backup_crashes: " << failure.what() << "\n";
    return 1;
}
