// Servers with one store, whose clock and histories are known, and the commands that are run on
// them.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/digest.h"
#include "notes_simulator/domino_sim/cli.h"
#include "tests/support/files.h"
#include "tests/torture/model_clock.h"
#include "tests/torture/server_history.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>

namespace qrtln::torture {

namespace fs = std::filesystem;

// A rule that more than one harness looks at.
inline constexpr const char* whole_store = "the store is whole";

// Begins this process and its children anew, altered: they read the clock of the model. Returns in
// the process that is altered.
inline void be_altered(char** argv) {
    if (std::getenv(clock_variable) != nullptr)
        return;
    int clock = ::memfd_create("clock", 0); // for this process and all that it starts
    std::string file = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(clock);
    // A sanitizer has a library before its own then, and cannot look for leaks under ptrace; with
    // all that it likes to keep of what was freed, a third of the time would go into fresh pages.
    const char* sanitizer =
        "verify_asan_link_order=0:detect_leaks=0:quarantine_size_mb=1:malloc_context_size=8";
    const std::pair<const char*, const char*> variables[] = {
        {clock_variable, file.c_str()},
        {"LD_PRELOAD", QRTLN_ALTERED_PROCESS},
        {"ASAN_OPTIONS", sanitizer},
        {"TZ", "UTC"},
        {"Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY},
        {"QRTLN_MODULE", ""}};
    for (auto [name, value] : variables)
        ::setenv(name, value, 1);
    if (::ftruncate(clock, sizeof(ModelClock)) == 0)
        ::execv("/proc/self/exe", argv);
    throw std::runtime_error("cannot start again with another clock");
}

struct ModelOptions {
    int servers = 2;
    bool calm = false; // nothing is damaged, no clock is changed, no backup is killed
    bool verbose = false;
};

// A rule that does not hold throws std::runtime_error, which begins with the rule.
class Model {
  public:
    // REQUIRES: be_altered(); one model at a time.
    Model(const std::string& folder, std::uint64_t seed, const ModelOptions& options)
        : m_options(options), m_folder(folder), m_clock(map_clock(std::getenv(clock_variable))),
          m_dice(seed) {
        m_clock.set(first_moment * nanoseconds);
        for (int number = 0; number < options.servers; ++number) {
            std::string name = folder + "/" + std::string(1, static_cast<char>('a' + number));
            m_servers.push_back(std::make_unique<History>(name, m_store, seed));
            turn_to(m_servers.size() - 1);
            stamp();
        }
    }

    // What was done last, for messages.
    const std::string& doing() const { return m_doing; }

  protected:
    using Json = nlohmann::json;

    // What is known of a set from its manifest.
    struct Set {
        const History* server = nullptr;
        bool whole = false; // complete, of the whole system
        std::int64_t ended = 0;
        std::string digest; // of the manifest's file
        std::set<std::string> log_objects;
    };
    static void require(bool holds, const std::string& rule, const std::string& text) {
        if (!holds)
            throw std::runtime_error(rule + ": " + text);
    }
    bool one_in(std::uint64_t sides) { return m_dice.below(sides) == 0; }
    template <typename List>
    const auto& one_of(const List& list) {
        auto at = std::begin(list);
        std::advance(at, static_cast<std::ptrdiff_t>(m_dice.below(std::size(list))));
        return *at;
    }

    std::int64_t seconds() const { return m_clock.now() / nanoseconds; }
    History& server() const { return *m_servers[m_server]; }

    // This process is a user of one server at a time.
    void turn_to(std::size_t number) {
        m_server = number;
        (void)::domino_sim::useServer(server().server_folder());
    }

    void commit(const std::string& name) {
        server().commit(name);
        server().logs_lost = false; // the server began a new log
        stamp();
    }

    // The kernel stamps files with its own time.
    void stamp() {
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

    // However long it took, if that was not very long: a seed plays one history.
    void stand_still_after(std::int64_t begun) {
        constexpr std::int64_t minute = 60 * nanoseconds;
        m_clock.set(std::max(m_clock.now(), begun + minute));
        stamp();
    }

    Run qrtln(const std::vector<std::string>& words, const Environment& more = {}, Kill kill = {},
              const CallObserver* observer = nullptr) {
        std::int64_t begun = m_clock.now();
        m_clock.go(1);
        Run run = run_program(server().command(words), more, kill, observer);
        stand_still_after(begun);
        // A module that lost its client still ends its operation; both share the lock of the store.
        FileDescriptor lock(::open((m_store + "/lock").c_str(), O_RDONLY | O_CLOEXEC));
        ::flock(lock.get(), LOCK_EX);
        m_leftovers = m_leftovers || run.killed || run.exit_code != 0 || !more.empty();
        if (m_options.verbose)
            std::cout << m_doing << ": " << Json(words) << " -> " << run.exit_code << "\n"
                      << run.errors << std::flush;
        require(run.killed || (run.exit_code >= 0 && run.exit_code != 2),
                "a command ends with an exit code of its own",
                std::to_string(run.exit_code) + ": " + run.errors);
        return run;
    }

    void note_commits() {
        for (auto& [name, database] : server().databases)
            database.commits_before = database.commits.size() - 1;
    }

    void take_new_sets() {
        fs::path sets = m_store + "/sets";
        if (!fs::exists(sets))
            return;
        for (const auto& entry : fs::directory_iterator(sets)) {
            std::string name = entry.path().stem();
            if (entry.path().extension() != ".json")
                continue;
            std::string bytes = read_file(entry.path());
            Json manifest = Json::parse(bytes, nullptr, false);
            require(manifest.is_object(), whole_store, "no manifest: " + name);
            if (!m_sets.contains(name))
                take_set(name, manifest);
            m_sets.at(name).digest = sha256_hex(bytes);
        }
    }

    bool is_archived(const std::string& digest) const {
        return std::any_of(m_sets.begin(), m_sets.end(), [&](const auto& set) {
            return set.second.log_objects.contains(digest);
        });
    }

    ModelOptions m_options;
    std::string m_folder;
    std::string m_store = m_folder + "/disk/store"; // and nothing else is on the disk
    ModelClock& m_clock;
    ::domino_sim::ContentGenerator m_dice;
    std::vector<std::unique_ptr<History>> m_servers;
    std::size_t m_server = 0; // that this step is about
    std::map<std::string, Set> m_sets;
    std::set<std::string> m_harmed; // packs in which bits were changed
    bool m_leftovers = false;       // a run was killed or failed: objects may belong to no set
    std::string m_doing;

  private:
    void take_set(const std::string& name, const Json& manifest) {
        Set& set = m_sets[name];
        std::string level = manifest.at("level");
        set.server = &server();
        set.whole = manifest.at("status") == "complete" &&
                    manifest.at("selection").at("whole_system") &&
                    (level == "full" || level == "copy");
        set.ended = manifest.at("ended");
        for (const Json& item : manifest.at("items")) {
            if (item.at("status") != "stored")
                continue;
            std::string path = item.at("path");
            if (item.at("kind") == "log" && !item.at("log").at("active"))
                set.log_objects.insert(item.at("object"));
            if (item.at("kind") != "database" || !path.starts_with(server().data()))
                continue;
            auto known = server().databases.find(path.substr(server().data().size()));
            if (known == server().databases.end())
                continue;
            ModelDatabase& database = known->second;
            ManifestItem content;
            content.object = item.at("object");
            if (auto map = item.find("map"); map != item.end())
                content.map = {map->at("file"), map->at("offset"), map->at("size")};
            database.saved.push_back(
                {name, set.ended, database.commits_before, database.commits.size() - 1, content});
        }
    }
};

} // namespace qrtln::torture
