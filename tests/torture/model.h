// A model of a store and its servers over whole histories: users' work, what befalls the servers,
// backups, restores and recoveries, some of which fail or are killed; and the rules that every
// command is held to.
#pragma once

#include "notes_simulator/use_mark.h"
#include "tests/torture/model_clock.h"
#include "tests/torture/server_history.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace qrtln::torture {

// What somebody puts beside the sets' manifests.
inline constexpr const char* foreign_file = "notes of the administrator";

// A rule that does not hold.
class Violation : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct ModelOptions {
    int steps = 30;
    bool calm = false; // nothing is damaged, no clock is changed, no backup is killed
    bool verbose = false;
};

class Model {
  public:
    Model(const Programs& programs, const std::string& clock, const std::string& folder,
          std::uint64_t seed, const ModelOptions& options);

    // Plays a history. Throws Violation at the first rule that does not hold.
    void run();
    // What was done last, for messages.
    const std::string& doing() const { return m_doing; }
    // How often each step was taken, and what came of it.
    const std::map<std::string, int>& counts() const { return m_counts; }

  private:
    using Files = std::map<std::string, std::string>; // by path: a digest of the content
    using Json = nlohmann::json;

    struct Step {
        const char* name;
        unsigned weight;
        bool calm;
        void (Model::*play)();
    };
    struct Server {
        std::unique_ptr<History> history;
        bool logs_lost = false; // and no new log begun
        bool log_was_lost = false;
        std::string away;      // a folder of databases that is not mounted
        unsigned away_for = 0; // steps
        std::set<std::string> away_databases;
    };
    // What is known of a set from its manifest.
    struct Set {
        std::size_t server = 0;
        std::string level;
        bool whole = false; // complete, of the whole system
        bool complete = false;
        std::int64_t started = 0;
        std::int64_t ended = 0;
        std::string digest; // of the manifest's file
        std::set<std::string> log_objects;
    };
    // A recovery in place: what was asked for, and what was there before.
    struct Recovery {
        std::size_t server = 0;
        std::vector<std::string> names; // empty: all
        std::optional<std::int64_t> to; // seconds since 1970
        std::string into;
        bool new_dbiid = false;
        bool resumed = false;
        bool plain = false; // nothing stood in its way when it began
        std::set<std::string> was_live;
        std::set<std::string> put_in_place; // by a run that did not end well, as they should be
    };

    // --- steps (model_steps.cpp)
    void write();
    void compact();
    void create();
    void remove();
    void back_up();
    void back_up_at(std::string level);
    void restore();
    void restore_all();
    void recover();
    void prove();
    void lose_databases();
    void lose_data();
    void lose_logs();
    void change_clock();
    void harm_index();
    void harm_object();
    void destroy_database();
    void unmount();
    void put_foreign_file();
    void go_on_with_recovery();

    bool one_in(std::uint64_t sides) { return m_dice.below(sides) == 0; }
    template <typename List>
    const auto& one_of(const List& list) {
        auto at = list.begin();
        std::advance(at, static_cast<std::ptrdiff_t>(m_dice.below(list.size())));
        return *at;
    }
    History& server() { return *m_servers[m_server].history; }
    void turn_to(std::size_t number);
    std::vector<std::string> live() const;
    std::vector<std::string> saved() const;
    void commit(const std::string& name);
    void stamp();
    void stand_still_after(std::int64_t begun);
    void begin_log_anew();
    void remove_logs();
    std::optional<std::int64_t> random_moment();
    std::int64_t seconds() const { return m_clock.now() / nanoseconds; }
    std::vector<std::string> faults_of_backup(Environment& environment, Kill& kill);
    Run qrtln(const std::vector<std::string>& words, const Environment& more = {}, Kill kill = {});
    void run_recovery(Recovery recovery, const std::vector<std::string>& options, Kill kill);
    void bring_back_unmounted();
    void recover_everything_beside();

    // --- rules (model_rules.cpp)
    Files files_of_servers() const;
    Files files_below(const std::vector<std::string>& folders) const;
    void take_new_sets(const std::map<std::string, std::size_t>& commits_before);
    void take_set(const std::string& name, const Json& manifest,
                  const std::map<std::string, std::size_t>& commits_before);
    void require_kept_sets() const;
    void require_saved(const std::string& level, bool busy);
    void require_archived_logs(const Files& before) const;
    void require_unchanged(const Files& before, const std::set<std::string>& except) const;
    void require_whole_store();
    void require_dry(std::vector<std::string> words);
    void require_told_recovery(const Recovery& recovery, const Run& run);
    void require_recovered(const Recovery& recovery, const Json& told, const std::string& name,
                           const std::string& file);
    void require_restored(const std::string& name, const std::vector<std::string>& options);
    void require_same(const std::string& name) const;
    void require_usable_log();
    void settle();
    void note_progress(Recovery& recovery);
    const Commit* expected(const Recovery& recovery, const Json& told, const std::string& name);
    bool is_plain(const Recovery& recovery, const std::string& name) const;
    bool damaged(const Saved& saved) const { return m_damaged.contains(saved.object); }
    [[noreturn]] void violate(const std::string& rule, const std::string& text) const;

    ModelOptions m_options;
    ModelClock m_clock;
    std::string m_folder;
    ::domino_sim::ContentGenerator m_dice;
    std::vector<Server> m_servers;
    std::size_t m_server = 0; // that this step is about
    std::map<std::string, Set> m_sets;
    std::set<std::string> m_damaged; // objects
    std::optional<Recovery> m_unfinished;
    std::int64_t m_barrier = 0; // seconds: moments up to it came more than once
    bool m_index_harmed = false;
    bool m_leftovers = false; // a run was killed or failed: objects may belong to no set
    int m_created = 0;
    std::string m_doing;
    std::map<std::string, int> m_counts;
};

} // namespace qrtln::torture
