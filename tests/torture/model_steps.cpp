// What befalls the servers of the model, and the commands that are run on them.
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/offline.h"
#include "tests/torture/model.h"

#include <algorithm>
#include <array>
#include <cerrno>
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
constexpr const char* junk = "broken.nsf";

// As in a set's name, or as people write it.
std::string utc_text(std::int64_t seconds, bool compact) {
    std::array<char, 32> text{};
    std::time_t time = seconds;
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    if (compact)
        std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    else
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &utc);
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

Model::Model(const Programs& programs, const std::string& clock, const std::string& folder,
             std::uint64_t seed, const ModelOptions& options)
    : m_options(options), m_clock(clock), m_folder(folder), m_dice(seed) {
    m_clock.set(first_moment * nanoseconds);
    for (const char* name : {"/a", "/b"}) {
        auto history = std::make_unique<History>(programs, folder + name, seed, folder + "/store");
        m_servers.emplace_back().history = std::move(history);
        turn_to(m_servers.size() - 1);
        stamp();
    }
}

void Model::run() {
    static constexpr std::array<Step, 18> steps = {{
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
    }};
    for (int i = 0; i < m_options.steps; ++i) {
        unsigned sum = 0;
        for (const Step& step : steps)
            sum += step.calm || !m_options.calm ? step.weight : 0;
        auto dice = static_cast<unsigned>(m_dice.below(sum));
        const Step* chosen = nullptr;
        for (const Step& step : steps) {
            unsigned weight = step.calm || !m_options.calm ? step.weight : 0;
            if (dice < weight) {
                chosen = &step;
                break;
            }
            dice -= weight;
        }
        turn_to(one_in(5) ? 1 : 0);
        // A store with a recovery that is not finished takes no other one.
        bool goes_on = m_unfinished && !one_in(4);
        if (i == 0)
            chosen = &steps[1];
        m_doing = "step " + std::to_string(i) + ", " + (goes_on ? "go on" : chosen->name);
        ++m_counts[goes_on ? "go on" : chosen->name];
        if (m_servers[m_server].away_for > 0 && --m_servers[m_server].away_for == 0)
            bring_back_unmounted();
        m_clock.advance(static_cast<std::int64_t>(m_dice.below(40'000)) * hundredth);
        goes_on ? go_on_with_recovery() : (this->*chosen->play)();
        stamp();
        require_kept_sets();
    }
    require_whole_store();
    for (std::size_t number = 0; number < m_servers.size() && !m_unfinished; ++number) {
        turn_to(number);
        m_doing = "the end";
        if (!saved().empty())
            recover_everything_beside();
    }
}

// What the sets and logs of a server come to in the end.
void Model::recover_everything_beside() {
    Recovery recovery;
    recovery.server = m_server;
    recovery.into = server().scratch() + "/into";
    run_recovery(recovery, {}, {});
}

// --- users, and what befalls a server

std::vector<std::string> Model::live() const {
    std::vector<std::string> names;
    for (const auto& [name, database] : m_servers[m_server].history->databases())
        if (database.live)
            names.push_back(name);
    return names;
}

std::vector<std::string> Model::saved() const {
    std::vector<std::string> names;
    for (const auto& [name, database] : m_servers[m_server].history->databases())
        if (!database.saved.empty())
            names.push_back(name);
    return names;
}

// This process is a user of one server at a time.
void Model::turn_to(std::size_t number) {
    m_server = number;
    (void)::domino_sim::useServer(server().server_folder());
}

void Model::commit(const std::string& name) {
    server().commit(name);
    m_servers[m_server].logs_lost = false; // the server began a new log
    stamp();
}

// The kernel stamps files with its own time.
void Model::stamp() {
    std::int64_t now = m_clock.now();
    timespec time{now / nanoseconds, now % nanoseconds};
    timespec times[2] = {time, time};
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
    std::vector<std::string> names = live();
    if (names.empty())
        return;
    bool sharp = one_in(3); // at a full second, and a hundredth after it
    if (sharp)
        m_clock.set((m_clock.now() / nanoseconds + 1) * nanoseconds);
    for (std::uint64_t left = 1 + m_dice.below(12); left > 0; --left) {
        commit(one_of(names));
        m_clock.advance((sharp ? 1 : static_cast<std::int64_t>(m_dice.below(150))) * hundredth);
    }
}

void Model::compact() {
    std::vector<std::string> names = live();
    if (names.empty())
        return;
    std::string name = one_of(names);
    m_doing += " " + name;
    server().compact(name);
    (void)server().observe(name);
}

void Model::create() {
    // Some have names that the index of instances cannot hold.
    static constexpr std::array forms = {"mail/new#.nsf", "mail/a=b#.nsf", "line\nend#.nsf",
                                         "plain#.nsf",    "unlogged#.nsf", "form#.ntf"};
    std::string name = one_of(forms);
    name.replace(name.find('#'), 1, std::to_string(++m_created));
    if (!m_servers[m_server].away.empty() && name.starts_with("mail/"))
        return;
    m_doing += " " + name;
    fs::create_directories(fs::path(server().path_of(name)).parent_path());
    server().create(name, m_dice.below(1000), !name.starts_with("unlogged"));
}

void Model::remove() {
    std::vector<std::string> names = live();
    if (names.size() < 4)
        return;
    std::string name = one_of(names);
    m_doing += " " + name;
    server().simulate({"lose", server().server_folder(), name});
    server().database(name).live = false;
}

void Model::lose_databases() {
    remove();
    if (one_in(2))
        recover();
}

void Model::lose_data() {
    if (!m_servers[m_server].away.empty())
        return;
    server().simulate({"lose", server().server_folder(), "--data"});
    for (const auto& [name, database] : server().databases())
        server().database(name).live = false;
    m_doing += ", then";
    one_in(3) ? restore_all() : recover();
}

// A user's work makes the server begin a log where there is none.
void Model::begin_log_anew() {
    if (std::vector<std::string> names = live(); !names.empty())
        commit(names.front());
}

// What was committed after the newest set is in no log any more.
void Model::remove_logs() {
    server().simulate({"lose", server().server_folder(), "--logs"});
    m_servers[m_server].logs_lost = m_servers[m_server].log_was_lost = true;
    m_barrier = std::max(m_barrier, seconds());
}

void Model::lose_logs() {
    bool new_log = one_in(2);
    remove_logs();
    if (one_in(2)) { // with the disk, and the data with it
        fs::remove(server().server_folder() + "/logs");
        server().simulate({"lose", server().server_folder(), "--data"});
        for (const auto& [name, database] : server().databases())
            server().database(name).live = false;
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
    std::string index = server().store() + "/runtime/qrtln_DBIID.ini";
    if (!fs::exists(index) || fs::file_size(index) == 0)
        return;
    m_index_harmed = true;
    if (one_in(2))
        flip_a_bit(index);
    else
        fs::remove(index);
}

void Model::harm_object() {
    std::vector<std::string> names = saved();
    if (names.empty())
        return;
    std::string name = one_of(names);
    const std::string& object = server().databases().at(name).saved.back().object;
    std::string file = server().store() + "/objects/" + object.substr(0, 2) + "/" + object + ".zst";
    if (!m_damaged.insert(object).second)
        return;
    m_doing += " of " + name;
    flip_a_bit(file);
}

void Model::destroy_database() {
    std::vector<std::string> names = live();
    if (names.size() < 3)
        return;
    std::string name = one_of(names);
    m_doing += " " + name;
    if (one_in(2)) {
        std::ofstream(server().path_of(name), std::ios::trunc).close();
    } else {
        std::ofstream file(server().path_of(name), std::ios::in | std::ios::binary);
        file << std::string(4096, '\xDB');
    }
    server().database(name).live = false;
    Recovery recovery;
    recovery.server = m_server;
    recovery.names = {name};
    if (server().databases().at(name).saved.empty() || m_unfinished) {
        fs::remove(server().path_of(name)); // the administrator gives it up
        return;
    }
    bool plain = is_plain(recovery, name);
    run_recovery(recovery, {}, {});
    if (plain && !server().databases().at(name).live)
        violate("a database that is none any more is recovered", name);
    if (!server().databases().at(name).live)
        fs::remove(server().path_of(name));
}

void Model::unmount() {
    Server& server = m_servers[m_server];
    std::string folder = this->server().server_folder() + "/data/mail";
    if (!server.away.empty() || !fs::exists(folder) || m_unfinished)
        return;
    server.away = this->server().scratch() + "/unmounted";
    fs::rename(folder, server.away);
    if (one_in(2))
        fs::create_directory(folder);
    for (const auto& [name, database] : this->server().databases())
        if (name.starts_with("mail/") && database.live) {
            this->server().database(name).live = false;
            server.away_databases.insert(name);
        }
    server.away_for = 1 + static_cast<unsigned>(m_dice.below(2));
    back_up();
}

void Model::bring_back_unmounted() {
    Server& server = m_servers[m_server];
    fs::remove_all(this->server().server_folder() + "/data/mail");
    fs::rename(server.away, this->server().server_folder() + "/data/mail");
    server.away.clear();
    for (const std::string& name : std::exchange(server.away_databases, {}))
        this->server().database(name).live = true;
}

void Model::put_foreign_file() {
    std::ofstream(server().store() + "/sets/" + foreign_file + ".json") << "{}\n";
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
}

Run Model::qrtln(const std::vector<std::string>& words, const Environment& more, Kill kill) {
    Environment& environment = server().environment();
    for (const char* name : {"QRTLN_MODEL_FAULTS", "NOTES_SIM_FAULTS"})
        environment[name] = more.contains(name) ? more.at(name) : "";
    if (m_options.verbose) {
        std::cout << "  [" << m_doing << "]";
        for (const std::string& word : words)
            std::cout << " " << word;
        for (const auto& [name, value] : more)
            std::cout << " " << name << "=" << value;
        if (kill.call != 0)
            std::cout << " killed at " << kill.call << ": " << victim_name(kill.victim);
        std::cout << std::endl;
    }
    std::int64_t begun = m_clock.now();
    m_clock.go(1);
    Run run = server().qrtln(words, kill.call != 0, kill);
    stand_still_after(begun);
    if (kill.call != 0) { // a module that lost its client still ends its operation
        int lock = ::open((server().store() + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
        if (lock >= 0) {
            ::flock(lock, LOCK_EX);
            ::close(lock);
        }
    }
    if (run.killed || run.exit_code != 0 || !more.empty())
        m_leftovers = true;
    if (m_options.verbose)
        std::cout << "    -> " << run.exit_code << (run.killed ? " killed" : "") << "\n"
                  << run.errors << std::flush;
    if (!run.killed && (run.exit_code < 0 || run.exit_code == 2))
        violate("a command ends with an exit code of its own",
                std::to_string(run.exit_code) + ": " + run.errors);
    stamp();
    return run;
}

std::vector<std::string> Model::faults_of_backup(Environment& environment, Kill& kill) {
    std::vector<std::string> removed_again;
    if (m_options.calm || one_in(2))
        return removed_again;
    switch (m_dice.below(8)) {
    case 0:
        environment["QRTLN_MODEL_FAULTS"] = "read .TXN 32768";
        break;
    case 1:
    case 2:
        environment["QRTLN_MODEL_FAULTS"] = "rename qrtln_DBIID.ini 5";
        break;
    case 3:
        environment["NOTES_SIM_FAULTS"] = "ConvertTIMEDATEToText=259";
        break;
    case 4:
        environment["QRTLN_MODEL_FAULTS"] = "lookup .zst 116;rename .json 5";
        break;
    case 5:
        environment["NOTES_SIM_FAULTS"] = "NSFEndArchivingLogs=259";
        break;
    case 6:
        std::ofstream(server().path_of(junk)) << "no database\n";
        removed_again.push_back(server().path_of(junk));
        break;
    default:
        kill = {static_cast<Victim>(m_dice.below(3)), 1 + m_dice.below(300)};
        break;
    }
    return removed_again;
}

void Model::back_up() {
    static constexpr std::array levels = {"full", "full", "incr", "incr",
                                          "incr", "diff", "diff", "copy"};
    back_up_at(m_sets.empty() ? "full" : one_of(levels));
}

void Model::back_up_at(std::string level) {
    std::vector<std::string> words = {"backup", "--json", "--level", level};
    if (one_in(3) && (level == "incr" || level == "diff"))
        words.emplace_back("--auto-full");
    m_doing += " " + level;
    Environment environment;
    Kill kill;
    std::vector<std::string> junk_files = faults_of_backup(environment, kill);
    for (const auto& [name, value] : environment)
        m_doing += ", " + value;
    m_doing += kill.call != 0 ? ", killed" : "";
    bool busy = environment.empty() && kill.call == 0 && one_in(6) && !live().empty();
    std::map<std::string, std::size_t> commits_before;
    for (const auto& [name, database] : server().databases())
        commits_before[name] = database.commits.size() - 1;
    Files before = files_of_servers();
    Run run;
    if (busy) { // the clock runs, so that commits and copies are seconds apart
        m_doing += ", busy";
        std::int64_t begun = m_clock.now();
        m_clock.go(20);
        Started backup(server().command(words), server().environment(), server().scratch());
        std::vector<std::string> names = live();
        for (std::size_t i = 0; !backup.ended(); ++i) // how often depends on the machine
            commit(names[i % names.size()]);
        run = backup.finish();
        stand_still_after(begun);
        stamp();
    } else {
        run = qrtln(words, environment, kill);
    }
    for (const std::string& file : junk_files)
        fs::remove(file);
    for (const std::string& name : live())
        if (!server().observe(name) && !server().databases().at(name).commits.empty()) {
            const std::vector<Commit>& commits = server().databases().at(name).commits;
            if (commits.back().content != commits[commits.size() - 2].content)
                violate("a backup changes no database", name);
        }
    take_new_sets(commits_before);
    require_archived_logs(before);
    if (m_options.calm && !m_unfinished && run.exit_code != 0 && run.exit_code != 16 &&
        level != "incr" && level != "diff" && !live().empty() &&
        run.errors.find("mount its disk") == run.errors.npos &&
        run.errors.find(" are away: ") == run.errors.npos)
        violate("a backup of a calm server succeeds", run.errors);
    if (run.exit_code == 0 && !run.killed) {
        Json summary = Json::parse(run.output);
        level = summary.at("level");
        if (level == "full")
            m_index_harmed = false;
        require_saved(level, busy);
    }
    if (one_in(4))
        require_whole_store();
}

// A moment that came once, not before the first set, or nothing.
std::optional<std::int64_t> Model::random_moment() {
    std::int64_t first = m_barrier;
    std::int64_t ended = 0;
    for (const auto& [name, set] : m_sets)
        if (set.server == m_server && set.whole && (ended == 0 || set.ended < ended))
            ended = set.ended;
    first = std::max(first, ended) + 1;
    if (ended == 0 || seconds() <= first)
        return std::nullopt;
    if (one_in(2)) { // near a commit
        const auto& commits = server().databases().at(one_of(saved())).commits;
        std::int64_t moment =
            one_of(commits).time / 100 + static_cast<std::int64_t>(m_dice.below(2));
        if (moment > first && moment < seconds())
            return moment;
    }
    return first +
           static_cast<std::int64_t>(m_dice.below(static_cast<std::uint64_t>(seconds() - first)));
}

void Model::restore() {
    std::vector<std::string> names = saved();
    if (names.empty() || !m_servers[m_server].away.empty())
        return;
    std::string name = one_of(names);
    std::vector<std::string> options;
    std::optional<std::int64_t> moment = random_moment();
    if (one_in(2) && moment)
        options = {"--at", utc_text(*moment, false)};
    else if (one_in(3))
        options = {"--set", one_of(server().databases().at(name).saved).set};
    m_doing += " " + name + (options.empty() ? "" : " " + options[0] + " " + options[1]);
    std::vector<std::string> words = {"restore", "--json", "--activate", name};
    words.insert(words.end(), options.begin(), options.end());
    if (one_in(5))
        require_dry(words);
    Files before = files_of_servers();
    Run run = qrtln(words);
    require_unchanged(before, {server().path_of(name)});
    Json told = run.output.empty() ? Json() : Json::parse(run.output);
    bool restored = false;
    if (told.contains("result"))
        for (const Json& target : told.at("result").at("restored"))
            restored = restored || target == server().path_of(name);
    if (run.exit_code == 0 && !restored)
        violate("what exit 0 stands over was restored", name);
    if (restored)
        require_restored(name, options);
    else
        require_same(name);
}

void Model::restore_all() {
    bool logs_gone = !fs::exists(server().server_folder() + "/logs");
    bool any_set = std::any_of(m_sets.begin(), m_sets.end(), [&](const auto& set) {
        return set.second.server == m_server && set.second.whole;
    });
    if (!any_set || !m_servers[m_server].away.empty() || m_unfinished)
        return;
    m_doing += " restore all";
    Files before = files_of_servers();
    Run run = qrtln({"restore", "--json", "--all", "--activate"});
    Json told = run.output.empty() ? Json() : Json::parse(run.output);
    std::set<std::string> restored;
    if (told.contains("result"))
        for (const Json& target : told.at("result").at("restored"))
            restored.insert(target);
    for (const auto& [name, database] : server().databases())
        if (restored.contains(server().path_of(name)))
            require_restored(name, {});
        else
            require_same(name);
    if (logs_gone)
        require_usable_log();
    else
        require_unchanged(before, {server().server_folder() + "/data"});
}

void Model::prove() {
    std::vector<std::string> names;
    for (const auto& [name, set] : m_sets)
        if (set.server == m_server)
            names.push_back(name);
    if (names.empty() || m_unfinished)
        return;
    std::string name = one_of(names);
    Files before = files_of_servers();
    Run run = qrtln({"prove", "--json", name});
    require_unchanged(before, {});
    if (run.exit_code == 0 && !m_sets.at(name).complete)
        violate("a proven set holds what it says", name + " has failed items");
}

void Model::recover() {
    std::vector<std::string> names = saved();
    if (names.empty() || m_unfinished || !m_servers[m_server].away.empty())
        return;
    Recovery recovery;
    recovery.server = m_server;
    bool all = one_in(3);
    std::vector<std::string> options;
    if (!all)
        for (std::uint64_t left = 1 + m_dice.below(2); left > 0; --left)
            recovery.names.push_back(one_of(names));
    std::sort(recovery.names.begin(), recovery.names.end());
    recovery.names.erase(std::unique(recovery.names.begin(), recovery.names.end()),
                         recovery.names.end());
    if (one_in(2))
        recovery.to = random_moment();
    if (one_in(4))
        recovery.into = server().scratch() + "/into";
    recovery.new_dbiid = one_in(12);
    Kill kill;
    if (one_in(5))
        kill = {static_cast<Victim>(m_dice.below(3)), 1 + m_dice.below(250)};
    run_recovery(recovery, {}, kill);
}

void Model::run_recovery(Recovery recovery, const std::vector<std::string>& options, Kill kill) {
    m_doing += " recover";
    std::vector<std::string> words = {"recover", "--json"};
    words.insert(words.end(), recovery.names.begin(), recovery.names.end());
    if (recovery.names.empty())
        words.emplace_back("--all");
    if (recovery.to)
        words.insert(words.end(), {"--to", utc_text(*recovery.to, true)});
    if (!recovery.into.empty())
        words.insert(words.end(), {"--into", recovery.into});
    if (recovery.new_dbiid)
        words.emplace_back("--new-dbiid");
    words.insert(words.end(), options.begin(), options.end());
    for (const std::string& word : words)
        m_doing += word == "recover" || word == "--json" ? "" : " " + word;
    std::vector<std::string> names = live();
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
    if (fs::exists(server().store() + "/runtime/recovery.json"))
        m_unfinished = recovery;
    if (run.killed) {
        if (m_unfinished)
            note_progress(*m_unfinished);
        else
            settle();
        return;
    }
    std::set<std::string> named;
    if (recovery.into.empty())
        for (const std::string& name : recovery.names)
            named.insert(server().path_of(name));
    if (recovery.into.empty() && recovery.names.empty())
        named.insert(server().server_folder() + "/data");
    if (!m_unfinished)
        require_unchanged(before, named);
    require_told_recovery(recovery, run);
    fs::remove_all(server().scratch() + "/into");
    bool again = options.empty() && !m_unfinished && run.exit_code != 0;
    for (const char* option : {"--replace-live", "--logs-lost"})
        if (again && (run.errors + run.output).find(option) != std::string::npos && one_in(2)) {
            run_recovery(recovery, {option}, {});
            break;
        }
}

// A recovery that waits or was killed: users work on, its copies vanish, it is gone on with or
// given up.
void Model::go_on_with_recovery() {
    if (!m_unfinished)
        return;
    turn_to(m_unfinished->server);
    if (one_in(2))
        for (const std::string& name : live())
            if (one_in(3))
                commit(name);
    if (!m_options.calm && one_in(4)) {
        m_doing += ", copies vanish";
        std::map<ino_t, bool>
            goes; // what clears a folder goes by age: both names of a file, or none
        for (const auto& entry : fs::recursive_directory_iterator(server().temporary())) {
            struct stat status {};
            if (!entry.is_regular_file() || ::lstat(entry.path().c_str(), &status) != 0)
                continue;
            auto [known, added] = goes.try_emplace(status.st_ino);
            if (added)
                known->second = one_in(2);
            if (known->second)
                fs::remove(entry.path());
        }
    }
    if (!m_options.calm && one_in(5)) {
        m_doing += ", new log";
        remove_logs();
        begin_log_anew();
    }
    Files before = files_of_servers();
    if (one_in(3)) {
        m_doing += ", abandon";
        Run run = qrtln({"recover", "--abandon", "--json"});
        if (run.exit_code != 0)
            violate("a recovery can be given up", run.errors);
        m_unfinished.reset();
        std::set<std::string> archived; // what the recovery may have brought back
        for (const auto& [name, set] : m_sets)
            archived.insert(set.log_objects.begin(), set.log_objects.end());
        Files after = files_of_servers();
        for (const auto& [path, digest] : before)
            if (path.ends_with(".TXN") && !after.contains(path) && !archived.contains(digest))
                violate("no log of the server is removed", path);
        settle();
        return;
    }
    m_doing += ", recover";
    Recovery recovery = *m_unfinished;
    recovery.resumed = true;
    Run run = qrtln({"recover", "--json"});
    if (!fs::exists(server().store() + "/runtime/recovery.json"))
        m_unfinished.reset();
    require_told_recovery(recovery, run);
    fs::remove_all(server().scratch() + "/into");
    if (!m_unfinished)
        settle();
}

} // namespace qrtln::torture
