// A model of a store and its servers over whole histories: users' work, what befalls the servers,
// backups, restores and recoveries, some of which fail or are killed; and the rules that every
// command is held to.
#pragma once

#include "tests/torture/model_clock.h"
#include "tests/torture/server_history.h"

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln::torture {

// What somebody puts beside the sets' manifests.
inline constexpr const char* foreign_file = "notes of the administrator";

// A rule that more than one harness looks at.
inline constexpr const char* whole_store = "the store is whole";

// Begins this process and its children anew, altered: they read the clock of the model. Returns in
// the process that is altered.
void be_altered(char** argv);

struct ModelOptions {
    int servers = 2;
    int steps = 30;
    bool calm = false; // nothing is damaged, no clock is changed, no backup is killed
    bool verbose = false;
};

// A rule that does not hold throws std::runtime_error, which begins with the rule.
class Model {
  public:
    // REQUIRES: be_altered(); one model at a time.
    Model(const std::string& folder, std::uint64_t seed, const ModelOptions& options);

    // Plays a history.
    void play();
    // What was done last, for messages.
    const std::string& doing() const { return m_doing; }

  protected:
    using Files = std::map<std::string, std::string>; // by path: a digest of the content
    using Json = nlohmann::json;

    struct Server : History {
        using History::History;
        bool logs_lost = false; // and no new log begun
        bool log_was_lost = false;
        std::string away;      // a folder of databases that is not mounted
        unsigned away_for = 0; // steps
        std::set<std::string> away_databases;
    };
    // What is known of a set from its manifest.
    struct Set {
        const Server* server = nullptr;
        bool whole = false; // complete, of the whole system
        bool complete = false;
        std::int64_t ended = 0;
        std::string digest; // of the manifest's file
        std::set<std::string> log_objects;
    };
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
        std::set<std::string> put_in_place =
            {}; // by a run that did not end well, as they should be
    };

    Server& server() const { return *m_servers[m_server]; }
    Run qrtln(const std::vector<std::string>& words, const Environment& more = {}, Kill kill = {},
              CallObserver* observer = nullptr);
    void commit(const std::string& name);
    // Before a backup, and after it.
    void note_commits();
    void take_new_sets();
    bool is_archived(const std::string& digest) const;
    [[noreturn]] void violate(const std::string& rule, const std::string& text) const;
    void require(bool holds, const std::string& rule, const std::string& text) const {
        if (!holds)
            violate(rule, text);
    }

    std::string m_folder;
    std::string m_store = m_folder + "/disk/store"; // and nothing else is on the disk
    ModelClock& m_clock;
    ::domino_sim::ContentGenerator m_dice;
    std::map<std::string, Set> m_sets;
    std::string m_doing;

  private:
    struct Step {
        const char* name;
        unsigned weight;
        bool calm;
        void (Model::*take)();
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

    // One of these, which is what the step is about; empty when there are too few.
    std::string choose(const std::vector<std::string>& names, std::size_t at_least = 1);
    bool one_in(std::uint64_t sides) { return m_dice.below(sides) == 0; }
    template <typename List>
    const auto& one_of(const List& list) {
        auto at = std::begin(list);
        std::advance(at, static_cast<std::ptrdiff_t>(m_dice.below(std::size(list))));
        return *at;
    }
    void turn_to(std::size_t number);
    void stamp();
    void stand_still_after(std::int64_t begun);
    void lose_everything();
    void begin_log_anew();
    void remove_logs();
    bool is_unfinished() const;
    std::optional<std::int64_t> random_moment();
    std::int64_t seconds() const { return m_clock.now() / nanoseconds; }
    void copies_vanish();
    void abandon_recovery();
    void bring_back_unmounted();
    std::set<std::string> run_restore(std::vector<std::string> words);
    void run_recovery(Recovery recovery, const std::vector<std::string>& options = {},
                      Kill kill = {});

    // --- rules (model_rules.cpp)
    Files files_of_servers() const;
    Files files_below(const std::vector<std::string>& folders) const;
    void take_set(const std::string& name, const Json& manifest);
    bool is_owed(const std::string& name) const;
    void require_kept_sets() const;
    void require_archived_logs(const Files& before) const;
    void require_saved(const std::string& level, bool busy) const;
    void require_unchanged(const Files& before, const std::set<std::string>& except) const;
    void require_whole_store();
    void require_dry(std::vector<std::string> words);
    void require_told_recovery(const Recovery& recovery, const Run& run);
    bool require_told(const Recovery& recovery, const Run& run, const Json& told,
                      const std::string& name);
    void require_restored(const std::string& name, std::optional<std::int64_t> at,
                          const std::string& set);
    void require_same(const std::string& name) const;
    void settle();
    void note_progress(Recovery& recovery);
    const Commit* expected(const Recovery& recovery, const Json& told,
                           const std::string& name) const;
    bool is_plain(const Recovery& recovery, const std::string& name) const;
    bool is_damaged(const Saved& saved) const { return m_damaged.contains(saved.object); }

    ModelOptions m_options;
    std::vector<std::unique_ptr<Server>> m_servers;
    std::size_t m_server = 0;        // that this step is about
    std::set<std::string> m_damaged; // objects
    std::optional<Recovery> m_unfinished;
    std::int64_t m_barrier = 0; // seconds: moments up to it came more than once
    bool m_index_harmed = false;
    bool m_leftovers = false; // a run was killed or failed: objects may belong to no set
    int m_created = 0;
};

} // namespace qrtln::torture
