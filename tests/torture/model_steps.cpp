// What befalls the servers of the model, and the commands that are run on them.
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/offline.h"
#include "notes_simulator/use_mark.h"
#include "tests/torture/model.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sys/file.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace qrtln::torture {

namespace {

constexpr std::int64_t hundredth = nanoseconds / 100;
constexpr std::int64_t day = 24 * 3600 * nanoseconds;

// Not as in a set's name, which means that set, however late its copies are.
std::string utc_text(std::int64_t seconds) {
    std::array<char, 32> text{};
    std::time_t time = seconds;
    std::tm utc{};
    std::strftime(text.data(), text.size(), "%FT%TZ", ::gmtime_r(&time, &utc));
    return text.data();
}

void flip_a_bit(const std::string& file) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    auto middle = static_cast<std::streamoff>(fs::file_size(file) / 2);
    stream.seekg(middle);
    char byte = static_cast<char>(stream.get() ^ 4);
    stream.seekp(middle);
    stream.put(byte);
}

} // namespace

void be_altered(char** argv) {
    if (std::getenv(clock_variable) != nullptr)
        return;
    int clock = ::memfd_create("clock", 0); // for this process and all that it starts
    std::string file = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(clock);
    ::setenv(clock_variable, file.c_str(), 1);
    ::setenv("LD_PRELOAD", QRTLN_ALTERED_PROCESS, 1);
    // A sanitizer has a library before its own then, and cannot look for leaks under ptrace.
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    ::setenv("TZ", "UTC", 1);
    if (::ftruncate(clock, sizeof(ModelClock)) == 0)
        ::execv("/proc/self/exe", argv);
    throw std::runtime_error("cannot start again with another clock");
}

Model::Model(const std::string& folder, std::uint64_t seed, const ModelOptions& options)
    : m_folder(folder), m_clock(map_clock(std::getenv(clock_variable))), m_dice(seed),
      m_options(options) {
    m_clock.set(first_moment * nanoseconds);
    for (int number = 0; number < options.servers; ++number) {
        std::string name = folder + "/" + std::string(1, static_cast<char>('a' + number));
        m_servers.push_back(std::make_unique<Server>(name, m_store, seed));
        turn_to(m_servers.size() - 1);
        stamp();
    }
}

void Model::play() {
    static constexpr Step steps[] = {
        {"write", 22, true, &Model::write},
        {"back up", 26, true, &Model::back_up},
        {"compact", 8, true, &Model::compact},
        {"create", 5, true, &Model::create},
        {"remove", 2, true, &Model::remove},
        {"restore", 7, true, &Model::restore},
        {"restore all", 2, true, &Model::restore_all},
        {"recover", 14, true, &Model::recover},
        {"prove", 2, true, &Model::prove},
        {"lose databases", 3, true, &Model::lose_databases},
        {"lose data", 2, true, &Model::lose_data},
        {"lose logs", 3, false, &Model::lose_logs},
        {"change clock", 4, false, &Model::change_clock},
        {"harm index", 3, false, &Model::harm_index},
        {"harm object", 2, false, &Model::harm_object},
        {"destroy database", 2, false, &Model::destroy_database},
        {"unmount", 2, false, &Model::unmount},
        {"foreign file", 1, false, &Model::put_foreign_file},
    };
    std::vector<const Step*> weighted;
    for (const Step& step : steps)
        if (step.calm || !m_options.calm)
            weighted.insert(weighted.end(), step.weight, &step);
    for (int i = 0; i < m_options.steps; ++i) {
        const Step* step = one_of(weighted);
        turn_to(one_in(5) ? 1 : 0);
        // A store with a recovery that is not finished takes no other one.
        static constexpr Step go_on = {"go on", 0, true, &Model::go_on_with_recovery};
        if (m_unfinished && !one_in(4))
            step = &go_on;
        if (i == 0)
            step = &steps[1];
        m_doing = "step " + std::to_string(i) + ", " + step->name;
        if (server().away_for > 0 && --server().away_for == 0)
            bring_back_unmounted();
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

// --- users, and what befalls a server

// This process is a user of one server at a time.
void Model::turn_to(std::size_t number) {
    m_server = number;
    (void)::domino_sim::useServer(server().server_folder());
}

void Model::commit(const std::string& name) {
    server().commit(name);
    server().logs_lost = false; // the server began a new log
    stamp();
}

// The kernel stamps files with its own time.
void Model::stamp() {
    timespec times[2] = {timespec_of(m_clock.now()), timespec_of(m_clock.now())};
    for (const char* part : {"/data", "/logs"}) {
        std::string folder = server().server_folder() + part;
        if (!fs::exists(folder))
            continue;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            struct stat status {};
            // Of this call nothing is altered.
            if (::lstat(entry.path().c_str(), &status) == 0 && is_real(status.st_mtim))
                ::utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
        }
    }
}

void Model::write() {
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

std::string Model::choose(const std::vector<std::string>& names, std::size_t at_least) {
    if (names.size() < at_least)
        return {};
    const std::string& name = one_of(names);
    m_doing += " " + name;
    return name;
}

void Model::compact() {
    if (std::string name = choose(server().live()); !name.empty())
        server().compact(name);
}

void Model::create() {
    // Some have names that the index of instances cannot hold.
    static constexpr const char* forms[] = {"mail/new#.nsf", "mail/a=b#.nsf", "line\nend#.nsf",
                                            "plain#.nsf",    "unlogged#.nsf", "form#.ntf"};
    std::string name = one_of(forms);
    name.replace(name.find('#'), 1, std::to_string(++m_created));
    if (!server().away.empty() && name.starts_with("mail/"))
        return;
    m_doing += " " + name;
    fs::create_directories(fs::path(server().path_of(name)).parent_path());
    server().create(name, m_dice.below(1000), !name.starts_with("unlogged"));
}

void Model::remove() {
    std::string name = choose(server().live(), 4);
    if (name.empty())
        return;
    server().simulate({"lose", name});
    server().database(name).live = false;
}

void Model::lose_databases() {
    remove();
    if (one_in(2))
        recover();
}

void Model::lose_everything() {
    server().simulate({"lose", "--data"});
    for (auto& [name, database] : server().databases)
        database.live = false;
}

void Model::lose_data() {
    if (!server().away.empty())
        return;
    lose_everything();
    m_doing += ", then";
    one_in(3) ? restore_all() : recover();
}

// A user's work makes the server begin a log where there is none.
void Model::begin_log_anew() {
    if (std::vector<std::string> names = server().live(); !names.empty())
        commit(names.front());
}

// What was committed after the newest set is in no log any more.
void Model::remove_logs() {
    server().simulate({"lose", "--logs"});
    server().logs_lost = server().log_was_lost = true;
    m_barrier = std::max(m_barrier, seconds());
}

void Model::lose_logs() {
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

void Model::change_clock() {
    m_barrier = std::max(m_barrier, seconds());
    bool back = one_in(2);
    m_doing += back ? " back" : " forward";
    m_clock.advance((back ? -1 : 1) * static_cast<std::int64_t>(1 + m_dice.below(48)) * day / 16);
    if (back) { // whoever backs up then hears of it
        write();
        back_up();
    }
}

void Model::harm_index() {
    std::string index = server().index_file();
    if (!fs::exists(index) || fs::file_size(index) == 0)
        return;
    m_index_harmed = true;
    if (one_in(2))
        flip_a_bit(index);
    else
        fs::remove(index);
}

void Model::harm_object() {
    std::string name = choose(server().saved());
    if (name.empty())
        return;
    const std::string& object = server().database(name).saved.back().object;
    if (m_damaged.insert(object).second)
        flip_a_bit(m_store + "/objects/" + object.substr(0, 2) + "/" + object + ".zst");
}

void Model::destroy_database() {
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
    if (!database.saved.empty() && !m_unfinished) {
        Recovery recovery = {.server = m_server, .names = {name}};
        bool plain = is_plain(recovery, name);
        run_recovery(recovery);
        require(!plain || database.live, "a database that is none any more is recovered", name);
    }
    if (!database.live)
        fs::remove(path); // the administrator gives it up
}

void Model::unmount() {
    std::string folder = server().path_of("mail");
    if (!server().away.empty() || !fs::exists(folder) || m_unfinished)
        return;
    server().away = server().folder + "/unmounted";
    fs::rename(folder, server().away);
    if (one_in(2))
        fs::create_directory(folder);
    for (auto& [name, database] : server().databases)
        if (name.starts_with("mail/") && std::exchange(database.live, false))
            server().away_databases.insert(name);
    server().away_for = 1 + static_cast<unsigned>(m_dice.below(2));
    back_up();
}

void Model::bring_back_unmounted() {
    fs::remove_all(server().path_of("mail"));
    fs::rename(server().away, server().path_of("mail"));
    server().away.clear();
    for (const std::string& name : std::exchange(server().away_databases, {}))
        server().database(name).live = true;
}

void Model::put_foreign_file() {
    std::ofstream(m_store + "/sets/" + foreign_file + ".json") << "{}\n";
    std::int64_t now = m_clock.now();
    for (int twice = 0; twice < 2; ++twice) { // in one second
        m_clock.set(now);
        back_up_at("copy");
        m_barrier = std::max(m_barrier, seconds()); // the second one sets the clock back
    }
}

// --- commands

// However long it took, if that was not very long: a seed plays one history.
void Model::stand_still_after(std::int64_t begun) {
    constexpr std::int64_t minute = 60 * nanoseconds;
    m_clock.set(std::max(m_clock.now(), begun + minute));
    stamp();
}

Run Model::qrtln(const std::vector<std::string>& words, const Environment& more, Kill kill,
                 CallObserver* observer) {
    Environment environment = server().environment;
    environment.insert(more.begin(), more.end());
    if (m_options.verbose) {
        std::cout << "  [" << m_doing << "]";
        for (const std::string& word : words)
            std::cout << " " << word;
        std::cout << std::endl;
    }
    std::int64_t begun = m_clock.now();
    m_clock.go(1);
    Run run = run_program(server().command(words), environment, server().folder, kill, observer);
    stand_still_after(begun);
    // A module that lost its client still ends its operation; both share the lock of the store.
    int lock = ::open((m_store + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
    if (lock >= 0) {
        ::flock(lock, LOCK_EX);
        ::close(lock);
    }
    m_leftovers = m_leftovers || run.killed || run.exit_code != 0 || !more.empty();
    if (m_options.verbose)
        std::cout << "    -> " << run.exit_code << "\n" << run.errors << std::flush;
    require(run.killed || (run.exit_code >= 0 && run.exit_code != 2),
            "a command ends with an exit code of its own",
            std::to_string(run.exit_code) + ": " + run.errors);
    return run;
}

void Model::back_up() {
    static constexpr const char* levels[] = {"full", "full", "incr", "incr",
                                             "incr", "diff", "diff", "copy"};
    back_up_at(m_sets.empty() ? "full" : one_of(levels));
}

void Model::back_up_at(std::string level) {
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
        Started backup(server().command(words), server().environment, server().folder);
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
std::optional<std::int64_t> Model::random_moment() {
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
    return first +
           static_cast<std::int64_t>(m_dice.below(static_cast<std::uint64_t>(seconds() - first)));
}

// Restores, and returns the paths that it tells of.
std::set<std::string> Model::run_restore(std::vector<std::string> words) {
    words.insert(words.begin(), {"restore", "--json", "--activate"});
    if (one_in(5))
        require_dry(words);
    Run run = qrtln(words);
    Json told = run.document();
    std::set<std::string> restored;
    if (told.contains("result"))
        restored = told.at("result").at("restored").get<std::set<std::string>>();
    require(run.exit_code != 0 || !restored.empty(), "what exit 0 stands over was restored",
            m_doing);
    return restored;
}

void Model::restore() {
    std::string name = server().away.empty() ? choose(server().saved()) : "";
    if (name.empty())
        return;
    std::vector<std::string> words = {name};
    std::optional<std::int64_t> at = random_moment();
    std::string set;
    if (!one_in(2))
        at.reset();
    if (at)
        words.insert(words.end(), {"--at", utc_text(*at)});
    else if (one_in(3))
        words.insert(words.end(), {"--set", set = one_of(server().database(name).saved).set});
    for (std::size_t i = 1; i < words.size(); ++i)
        m_doing += " " + words[i];
    Files before = files_of_servers();
    bool restored = run_restore(words).contains(server().path_of(name));
    require_unchanged(before, {server().path_of(name)});
    if (restored)
        require_restored(name, at, set);
    else
        require_same(name);
}

void Model::restore_all() {
    bool logs_gone = !fs::exists(server().server_folder() + "/logs");
    bool any_set = std::any_of(m_sets.begin(), m_sets.end(), [&](const auto& set) {
        return set.second.server == &server() && set.second.whole;
    });
    if (!any_set || !server().away.empty() || m_unfinished)
        return;
    m_doing += " restore all";
    Files before = files_of_servers();
    std::set<std::string> restored = run_restore({"--all"});
    for (const auto& [name, database] : server().databases)
        if (restored.contains(server().path_of(name)))
            require_restored(name, {}, "");
        else
            require_same(name);
    if (logs_gone) // the server takes the logs that were restored
        begin_log_anew();
    else
        require_unchanged(before, {server().data()});
}

void Model::prove() {
    std::vector<std::string> names;
    for (const auto& [name, set] : m_sets)
        if (set.server == &server() && !m_unfinished)
            names.push_back(name);
    std::string name = choose(names);
    if (name.empty())
        return;
    Files before = files_of_servers();
    Run run = qrtln({"prove", "--json", name});
    require_unchanged(before, {});
    require(run.exit_code != 0 || m_sets.at(name).complete, "a proven set holds what it says",
            name + " has failed items");
}

void Model::recover() {
    std::vector<std::string> names = server().saved();
    if (names.empty() || m_unfinished || !server().away.empty())
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

bool Model::is_unfinished() const {
    return fs::exists(m_store + "/runtime/recovery.json");
}

void Model::run_recovery(Recovery recovery, const std::vector<std::string>& options, Kill kill) {
    std::vector<std::string> words = {"recover", "--json"};
    words.insert(words.end(), recovery.names.begin(), recovery.names.end());
    if (recovery.names.empty())
        words.emplace_back("--all");
    if (recovery.to)
        words.insert(words.end(), {"--to", utc_text(*recovery.to)});
    if (!recovery.into.empty())
        words.insert(words.end(), {"--into", recovery.into});
    if (recovery.new_dbiid)
        words.emplace_back("--new-dbiid");
    words.insert(words.end(), options.begin(), options.end());
    for (const std::string& word : words)
        m_doing += " " + word;
    std::vector<std::string> names = server().live();
    recovery.was_live = {names.begin(), names.end()};
    recovery.plain = std::all_of(recovery.names.begin(), recovery.names.end(),
                                 [&](const std::string& name) { return is_plain(recovery, name); });
    std::optional<notes_sim::UseMark> used;
    if (!m_options.calm && kill.call == 0 && one_in(6) && !names.empty()) {
        std::string name = recovery.names.empty() || !recovery.was_live.contains(recovery.names[0])
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

// What clears a folder goes by age: both names of a file, or none.
void Model::copies_vanish() {
    m_doing += ", copies vanish";
    std::map<ino_t, bool> goes;
    for (const auto& entry : fs::recursive_directory_iterator(server().temporary())) {
        struct stat status {};
        if (!entry.is_regular_file() || ::lstat(entry.path().c_str(), &status) != 0)
            continue;
        if (!goes.contains(status.st_ino))
            goes[status.st_ino] = one_in(2);
        if (goes[status.st_ino])
            fs::remove(entry.path());
    }
}

void Model::abandon_recovery() {
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
void Model::go_on_with_recovery() {
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

} // namespace qrtln::torture
