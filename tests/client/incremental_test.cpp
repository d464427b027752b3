// Differential and incremental backups with the real module over the simulated server.
#ifdef QRTLN_DOMINO_SIM

#include "client/error.h"
#include "client/index_guard.h"
#include "client/owed.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"
#include "notes_simulator/notes_simulator.h"
#include "tests/client/simulated_server.h"

#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::Outcome;
using test::OverTheSimulator;
using test::read_file;
using test::run_client;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Incremental : public OverTheSimulator {
  protected:
    // Runs a backup that must end with this code; its JSON document.
    json run(const std::string& level, int exit_code, std::vector<std::string> more = {},
             test::Environment environment = {}) {
        more.insert(more.begin(), {"backup", "--level", level});
        return OverTheSimulator::run(exit_code, std::move(more), std::move(environment));
    }
    std::string newest_set() const { return list().back()["set"]; }
    // Another program archives logs: takes one if told so, and is killed in its session.
    void killed_archiver(bool takes_one) const {
        pid_t pid = ::fork();
        if (pid == 0) {
            void* notes = ::dlopen(QRTLN_SIMULATOR_DIRECTORY "/libnotes.so", RTLD_NOW);
            auto init =
                reinterpret_cast<decltype(&NotesInitExtended)>(::dlsym(notes, "NotesInitExtended"));
            auto begin = reinterpret_cast<decltype(&NSFBeginArchivingLogs)>(
                ::dlsym(notes, "NSFBeginArchivingLogs"));
            auto first = reinterpret_cast<decltype(&NSFGetFirstLogToArchive)>(
                ::dlsym(notes, "NSFGetFirstLogToArchive"));
            auto done = reinterpret_cast<decltype(&NSFDoneArchivingLog)>(
                ::dlsym(notes, "NSFDoneArchivingLog"));
            std::string program = "archiver";
            std::string ini = "=" + m_server + "/notes.ini";
            char* arguments[] = {program.data(), ini.data(), nullptr};
            UNIVERSALNOTEID id{};
            DWORD number = 0;
            char path[1028];
            bool good = init(2, arguments) == 0 && begin() == 0;
            if (takes_one)
                good = good && first(&id, &number, path) == 0 && done(&id, &number) == 0;
            ::raise(good ? SIGKILL : SIGABRT);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    }
    std::string index() const { return read_file(m_store + "/runtime/qrtln_DBIID.ini"); }
    std::string owed() const { return read_file(m_store + "/runtime/owed.jsonl"); }
};

TEST_F(Incremental, SavesWhatTheRulesSelectAndTheLogsWhichTheServerThenRemoves) {
    json base = run("full", 0);
    EXPECT_EQ(index(), ""); // no database had been backed up on this log: none has an entry
    fill_extents(3);
    json first = run("incr", 0);
    EXPECT_THAT(databases(first["set"]), IsEmpty()); // the log brings them up to date
    EXPECT_EQ(first["logs"], (json{{"first", 1}, {"last", 4}, {"active", 4}}));
    EXPECT_THAT(extents(), ElementsAre(4)); // the others are in the store alone

    base = run("full", 0);
    std::string before = index();
    EXPECT_THAT(before, HasSubstr("names.nsf="));
    ASSERT_EQ(domino("compact " + m_server + " names.nsf"), 0); // a new DBIID
    fill_extents(2);
    json sets[3];
    sets[0] = run("incr", 0);
    // Not backed up under this DBIID; its entry in the index stays as it was.
    EXPECT_THAT(databases(sets[0]["set"]), ElementsAre("names.nsf"));
    EXPECT_EQ(index(), before);
    sets[1] = run("incr", 0);
    // The entry differs, and is updated.
    EXPECT_THAT(databases(sets[1]["set"]), ElementsAre("names.nsf"));
    EXPECT_NE(index(), before);
    sets[2] = run("incr", 0);
    EXPECT_THAT(databases(sets[2]["set"]), IsEmpty());

    std::string previous = base["set"];
    for (const json& set : sets) {
        Manifest stored = manifest(set["set"]);
        EXPECT_EQ(stored.base, base["set"]);
        EXPECT_EQ(stored.previous, previous);
        EXPECT_THAT(stored.log_gaps, IsEmpty());
        previous = stored.set;
    }
    EXPECT_EQ(owed(), "");
    json listed = list().back();
    EXPECT_EQ(listed["base"], base["set"]);
    EXPECT_EQ(listed["logs"]["active"], extents().back());
    EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 0);
}

TEST_F(Incremental, DifferentialSavesWhatChangedSinceTheBase) {
    for (const char* level : {"diff", "incr"}) {
        run(level, 1);
        EXPECT_THAT(m_errors, HasSubstr("hint: take one first: `qrtln backup --level full`"));
        EXPECT_FALSE(fs::exists(m_store));
    }
    run("full", 0, {"mail"}); // named databases are no base
    run("diff", 1);
    EXPECT_EQ(run("copy", 0)["level"], "copy");
    run("diff", 1);
    settle();
    json base = run("diff", 0, {"--auto-full"});
    EXPECT_EQ(base["level"], "full");
    EXPECT_THAT(m_errors, HasSubstr("becomes a full one"));
    ASSERT_EQ(domino("put " + m_server + " mail/user1.nsf"), 0);
    for (int i = 0; i < 2; ++i) {
        json diff = run("diff", 0, {"--auto-full"});
        EXPECT_EQ(diff["base"], base["set"]);
        EXPECT_THAT(databases(diff["set"]), ElementsAre("mail/user1.nsf"));
        EXPECT_TRUE(diff["logs"].is_null());
    }
    EXPECT_THAT(extents(), ElementsAre(1));
    EXPECT_THAT(databases(run("diff", 0, {"names.nsf"})["set"]), IsEmpty());
}

TEST_F(Incremental, WhatTheModulePassesOverOrDoubtsHasFailed) {
    const struct {
        const char* level;
        const char* faults;
        int exit_code;
        const char* text; // of a failed item, or of a warning
    } cases[] = {
        {"incr", "NSFDbGetLogInfo#1=513", 3, "could not tell whether it needs to be backed up"},
        {"diff", "NSFDbGetLogInfo#1=513", 3, "could not tell whether it needs to be backed up"},
        {"full", "NSFDbGetLogInfo#1=513", 0, "the index of databases has no entry for it"},
        {"diff", "NSFDbGetModifiedNoteTable=513", 3, "could not tell whether it was modified"},
        {"diff", "ConvertTextToTIMEDATE=513", 3, "ConvertTextToTIMEDATE() failed"},
        {"diff", "ConvertTIMEDATEToText=513", 3, "mail/user1.nsf"}, // the module says nothing
        {"copy", "NSFBackupEndApplyChangeInfo=513", 3, "the changes made during its copy"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.faults);
        run("full", 0);
        ASSERT_EQ(domino("put " + m_server + " mail/user1.nsf"), 0);
        json set = run(test.level, test.exit_code, {}, {{"NOTES_SIM_FAULTS", test.faults}});
        EXPECT_THAT(set[test.exit_code == 0 ? "warnings" : "failed"].dump(), HasSubstr(test.text));
    }
}

TEST_F(Incremental, FullStoreLosesNothingWhateverStepItStops) {
    test::SmallFileSystem small(m_scratch / "small", 16 << 20);
    if (!small.mounted())
        GTEST_SKIP() << "mounting a small file system needs root";
    m_store = m_scratch / "small/store";
    run("full", 0);
    run("full", 0);
    ASSERT_EQ(domino("compact " + m_server + " names.nsf"), 0);
    fill_extents(3);
    const auto server_logs = extents();
    const std::string index_before = index();
    const std::size_t sets_before = list().size();
    const auto all = fs::copy_options::recursive | fs::copy_options::overwrite_existing;
    for (const auto& [from, to] : {std::pair{m_server, "server-0"}, std::pair{m_store, "store-0"}})
        fs::copy(from, m_scratch / to, all);

    // The room that the run needs is closed in on, to the page: its last step fails, too.
    bool owed_once = false;
    std::string last_failure;
    constexpr std::uintmax_t page = 4096;
    for (std::uintmax_t too_small = 0, enough = 1 << 20; enough - too_small > page;) {
        for (const auto& [to, from] :
             {std::pair{m_server, "server-0"}, std::pair{m_store, "store-0"}}) {
            fs::remove_all(to);
            fs::copy(m_scratch / from, to, all);
        }
        std::uintmax_t room = (too_small + enough) / 2 / page * page;
        std::string filler = m_scratch / "small/filler";
        test::write_file(filler, std::string(fs::space(m_store).available - room, 'x'));
        Outcome outcome = backup({"--level", "incr"});
        fs::remove(filler);
        if (outcome.exit_code == 0) {
            enough = room;
            continue;
        }
        too_small = room;
        SCOPED_TRACE(room);
        last_failure = outcome.errors;
        ASSERT_EQ(outcome.exit_code, 1) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr("No space left"));
        EXPECT_EQ(extents(), server_logs);
        EXPECT_EQ(index(), index_before);
        EXPECT_EQ(list().size(), sets_before);
        bool prepared = owed().find("names.nsf") != std::string::npos;
        owed_once = owed_once || prepared;

        json next = run("incr", 0);
        // By now it counts as backed up for the server.
        EXPECT_EQ(next.contains("owed"), prepared);
        EXPECT_THAT(databases(prepared ? next["owed"]["set"] : next["set"]),
                    ElementsAre("names.nsf"));
        EXPECT_EQ(next["logs"], (json{{"first", server_logs.front()},
                                      {"last", server_logs.back()},
                                      {"active", server_logs.back()}}));
        EXPECT_THAT(extents(), ElementsAre(server_logs.back()));
        EXPECT_EQ(owed(), "");
    }
    EXPECT_TRUE(owed_once);
    EXPECT_THAT(last_failure, HasSubstr("manifest"));
}

TEST_F(Incremental, LogThatAnotherProgramTookIsReportedAtOnce) {
    json base = run("full", 0);
    killed_archiver(false); // its session is in the way once
    run("incr", 0);
    EXPECT_THAT(m_errors, HasSubstr("starting again"));
    fill_extents(3);
    killed_archiver(true);
    json set = run("incr", 16);
    EXPECT_THAT(m_errors, HasSubstr("the transaction log 1 is missing between the sets "));
    EXPECT_THAT(m_errors, HasSubstr("hint: take a full backup now"));
    EXPECT_EQ(set["status"], "complete, logs missing");
    EXPECT_EQ(list().back()["status"], "complete, logs missing");
    EXPECT_THAT(run_client({"show", "latest", "--store", m_store}, {}).output,
                HasSubstr("the transaction log 1 is missing"));
    EXPECT_THAT(extents(), ElementsAre(4)); // the set is whole all the same
    run("incr", 16);
    EXPECT_EQ(run("incr", 0, {"--auto-full"})["level"], "full");
    EXPECT_THAT(m_errors, HasSubstr("this backup becomes a full one (--auto-full)"));
    EXPECT_EQ(run("incr", 0, {"--auto-full"})["level"], "incr");
}

TEST_F(Incremental, OtherStylesOfLoggingAreToldAtEachLevel) {
    const struct {
        const char* style;
        int full;
        int diff;
        const char* text;
    } cases[] = {
        {"circular", 0, 0, "circular transaction logging"},
        {"linear", 0, 3, "linear transaction logging"}, // logged databases fail their check
        {"none", 0, 0, "no transaction logging"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.style);
        m_server = m_scratch / test.style;
        m_store = m_server + "-store";
        ASSERT_EQ(domino("init " + m_server + " --databases 6 --style " + test.style), 0);
        settle();
        json full = run("full", test.full);
        EXPECT_EQ(full["warnings"].dump().find("has no entry for it") != std::string::npos,
                  test.diff == 3);
        ASSERT_EQ(domino("put " + m_server + " mail/user1.nsf"), 0);
        json diff = run("diff", test.diff);
        if (test.diff == 0) {
            EXPECT_THAT(databases(diff["set"]), ElementsAre("mail/user1.nsf"));
        } else {
            EXPECT_THAT(diff["failed"].dump(), HasSubstr("with linear logging"));
            EXPECT_THAT(m_errors, HasSubstr("take --level full instead of diff"));
        }
        run("incr", 14);
        EXPECT_THAT(m_errors, HasSubstr(test.text));
        EXPECT_THAT(m_errors,
                    HasSubstr(test.diff == 0 ? "take --level diff or full" : "take --level full"));
        run("copy", 0);
    }
}

// No later set would have them: an incremental one takes what is logged, the index has no entry.
TEST_F(Incremental, DatabasesThatItWouldNotSelectComeFirstInASetOfTheirOwn) {
    const std::string odd = std::string(240, 'n') + ".nsf";
    for (const std::string& name : {std::string("a=b.nsf"), odd})
        ASSERT_EQ(domino("create " + m_server + " " + name + " --notes 3"), 0);
    run("full", 0);
    EXPECT_THAT(databases(run("incr", 0)["owed"]["set"]), ElementsAre("a=b.nsf", odd));
    for (const char* name : {"new.nsf", "unlogged.nsf --unlogged"})
        ASSERT_EQ(domino("create " + m_server + " " + std::string(name) + " --notes 3"), 0);
    EXPECT_THAT(databases(run("incr", 0)["owed"]["set"]),
                ElementsAre("a=b.nsf", "new.nsf", odd, "unlogged.nsf"));
    EXPECT_THAT(m_errors, HasSubstr("2 databases are in no set since "));
    for (const char* level : {"incr", "diff"})
        EXPECT_THAT(databases(run(level, 0)["owed"]["set"]), ElementsAre("a=b.nsf", odd));
    EXPECT_EQ(owed(), "");
}

TEST_F(Incremental, AFolderThatIsAwayIsNotRemoved) {
    const std::string mail = m_server + "/data/mail";
    json base = run("full", 0);
    OwedDatabases(m_store + "/runtime/owed.jsonl").add(m_server + "/data", mail + "/user1.nsf");
    const std::string list = owed();
    fs::rename(mail, m_scratch / "mail");
    for (bool empty : {false, true}) { // as where a disk is not mounted
        if (empty)
            fs::create_directory(mail);
        run("incr", 3);
        EXPECT_THAT(m_errors, HasSubstr("1 databases of " + mail));
        json full = run("full", 3);
        EXPECT_EQ(full["failed"][0]["path"], mail);
        EXPECT_THAT(full["failed"].dump(), HasSubstr(base["set"].get<std::string>()));
        EXPECT_EQ(owed(), list);
    }
    run("full", 1, {"--removed", "names.nsf"});
    run("full", 0, {"--removed", "mail", "--removed", mail + "/below"});
    EXPECT_EQ(owed(), "");
    run("full", 0);
}

// What was changed while the clock was behind looks older than the base.
TEST_F(Incremental, ABaseFromTheFutureIsNotBuiltOnAnyMore) {
    Manifest base = manifest(run("full", 0)["set"]);
    const std::int64_t started = base.started;
    auto start_base_at = [&](std::int64_t time) {
        base.started = time;
        open_directory_store(m_store, StoreAccess::change)
            ->rewrite_manifest(base.set, serialize(base));
    };
    run("incr", 0);
    start_base_at(started + 172800);
    const auto refused = [&](const char* text) {
        for (const char* level : {"diff", "incr"}) {
            run(level, 1);
            EXPECT_THAT(m_errors, HasSubstr(text));
            EXPECT_THAT(m_errors, HasSubstr("hint: take one first"));
        }
    };
    refused("the clock shows ");
    start_base_at(started); // the clock is right again
    refused("was set back once");
    const std::string list = m_store + "/runtime/distrusted.json";
    test::write_file(list, test::read_file(list) + " "); // then no base is trusted
    refused("was set back once");
    EXPECT_EQ(run("diff", 0, {"--auto-full"})["level"], "full");
    run("diff", 0);
    base = manifest(run("full", 0)["set"]);
    start_base_at(manifest(run("incr", 0)["set"]).started + 1);
    settle();
    refused("was set back when the set ");
}

// A lost entry would mean a database that is silently not saved.
TEST_F(Incremental, AnIndexThatIsNotTheOneTheNewestSetLeftCallsForAFullBackup) {
    const std::string index = m_store + "/runtime/qrtln_DBIID.ini";
    run("full", 0);
    run("full", 0); // the server knows the databases as backed up: they get entries
    const std::string older = read_file(index);
    struct Case {
        const char* what;
        std::function<void()> damage;
    };
    const Case cases[] = {
        {"a flipped bit",
         [&] {
             std::string bytes = read_file(index);
             bytes[bytes.size() / 2] ^= 1;
             test::write_file(index, bytes);
         }},
        {"missing", [&] { fs::remove(index); }},
        {"an older one", [&] { test::write_file(index, older); }},
        {"a damaged note about it",
         [&] {
             std::string note = m_store + "/sets/" + newest_set() + ".index";
             test::write_file(note, read_file(note) + " ");
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(domino("compact " + m_server + " names.nsf"), 0); // another identity
        run("full", 0);
        run("full", 0);
        run("incr", 0);
        c.damage();
        auto before = test::snapshot(m_store);
        for (const char* level : {"incr", "diff"}) {
            run(level, 4);
            EXPECT_THAT(m_errors, HasSubstr("--level full"));
        }
        EXPECT_EQ(test::snapshot(m_store), before);
        EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 4);
        EXPECT_EQ(run("incr", 0, {"--auto-full"})["level"], "full");
        run("incr", 0);
    }
}

// A set that went without a word is damage wherever one would build on it; a forgotten one is not,
// but what only it had must be saved anew. No other store may tear the chain meanwhile.
TEST_F(Incremental, SetsThatAreGoneAreToldAndNothingBuildsOnWhatIsLeft) {
    run("full", 0);
    const std::string first = newest_set();
    for (const char* level : {"incr", "full", "incr", "incr"})
        run(level, 0);
    const json before = list();
    auto gone = [&](std::size_t number) {
        const std::string set = before[number]["set"];
        SCOPED_TRACE(set);
        const std::string name = m_store + "/sets/" + set;
        const std::string manifest = read_file(name + ".json");
        fs::remove(name + ".json");
        for (const char* command : {"verify", "list"}) {
            Outcome told = run_client({command, "--store", m_store}, {});
            EXPECT_EQ(told.exit_code, 4);
            EXPECT_THAT(told.output + told.errors, HasSubstr("the set " + set + " is missing"));
        }
        EXPECT_EQ(backup({"--level", "diff"}).exit_code, number >= 2 ? 4 : 0);
        test::write_file(name + ".json", manifest);
    };
    gone(2); // the base
    gone(3); // in the middle
    gone(4); // the newest: its note is there
    EXPECT_THAT(client({"restore", "names.nsf", "--dry-run"}).errors, testing::IsEmpty());

    EXPECT_EQ(run_client({"forget", first, "--store", m_store}, {}).exit_code,
              1); // one builds on it
    std::vector<std::string> forget = {"forget", "--store", m_store};
    for (std::size_t i = 2; i < 5; ++i)
        forget.push_back(before[i]["set"]);
    EXPECT_EQ(run_client(forget, {}).exit_code, 0);
    EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 4); // the index is theirs
    EXPECT_NE(backup({"--level", "incr"}).exit_code, 0);
    EXPECT_EQ(backup({"--level", "incr", "--auto-full"}).exit_code, 0);
    EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 0);

    const std::string own = std::exchange(m_store, m_scratch / "second");
    EXPECT_THAT(backup().errors, HasSubstr("the store " + own + " archives"));
    EXPECT_EQ(backup({"--level", "copy"}).exit_code, 0);
    EXPECT_EQ(backup({"--take-over"}).exit_code, 0);
    fs::rename(m_store, m_scratch / "mounted"); // its disk is away: nothing begins in its place
    EXPECT_THAT(backup().errors, HasSubstr("perhaps its disk is not mounted"));
    EXPECT_FALSE(fs::exists(m_store));
    m_store = m_scratch / "mounted"; // it was moved
    EXPECT_EQ(backup().exit_code, 0);
    m_store = own;
    EXPECT_EQ(backup({"--level", "incr"}).exit_code, 1);
}

// The note is written before the close and made final after it: a run that is killed in between
// leaves the old index or the new one, and the next needs no hand. Only with the new one are the
// entries of a first full backup complete.
TEST_F(Incremental, TheNoteOfTheIndexHoldsForBothSidesOfAClose) {
    run("full", 0);
    auto store = open_directory_store(m_store, StoreAccess::change);
    const std::string index = store->runtime_directory() + "/qrtln_DBIID.ini";
    const std::string set = newest_set();
    const std::string other = "/another/server";
    const struct {
        const char* content;
        bool closed;
        bool whole;    // the index is one of the two
        bool complete; // for the other server
        bool told;     // after the close
    } cases[] = {
        {"old", true, true, false, true},
        {"old", false, true, false, false}, // why it did not close is told already
        {"new", true, true, true, false},
        {"new", false, true, true, false},
        {"neither", true, false, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        test::write_file(index, "old");
        test::write_file(index + ".4711", "new");
        store->write_note(set, SetNote::index,
                          to_canonical({{"format", 1},
                                        {"set", set},
                                        {"hashes", {sha256_hex("old")}},
                                        {"servers", {{{"data_directory", "/d"}}}}}));
        IndexGuard guard(*store, host_name());
        guard.expect_close(set, {.data_directory = other, .child = 4711, .whole_full = true});
        test::write_file(index, c.content);
        for (bool noted : {false, true}) {
            if (noted) {
                EXPECT_EQ(guard.check_closed(set, other, c.closed).empty(), !c.told);
                guard.note_closed(set);
            }
            IndexGuard next(*store, host_name());
            EXPECT_EQ(next.problem().empty(), c.whole);
            EXPECT_EQ(next.problem_for(other).empty(), c.complete);
            EXPECT_EQ(next.problem_for("/d").empty(), c.whole);
        }
        EXPECT_EQ(guard.problem_for(other).empty(), c.complete);
        test::write_file(index, std::string(c.content) == "old" ? "new" : "old");
        EXPECT_EQ(IndexGuard(*store, host_name()).problem().empty(), !c.whole);
    }
    // A copy of the index that another user worked on: until the store has it, no crash may leave
    // an old one that is relied on, and only what was noted is taken.
    for (const std::string left : {"hostile", "new"}) {
        test::write_file(m_tmp + "/qrtln_DBIID.ini.4711", "new of " + other);
        IndexGuard guard(*store, host_name());
        const std::string before = test::read_file(index);
        guard.expect_close(set, {.data_directory = "/d", .child = 4711, .folder = m_tmp});
        EXPECT_FALSE(IndexGuard(*store, host_name()).problem_for("/d").empty());
        test::write_file(m_tmp + "/qrtln_DBIID.ini", left + " of " + other);
        EXPECT_EQ(guard.check_closed(set, "/d", left == "new"), "");
        guard.note_closed(set);
        EXPECT_EQ(IndexGuard(*store, host_name()).problem_for("/d"), "");
        EXPECT_EQ(test::read_file(index), left == "new" ? "new of " + other : before);
    }
    fs::remove(index + ".4711");
    EXPECT_THROW(
        IndexGuard(*store, host_name()).expect_close(set, {.child = 4711, .has_entries = true}),
        ClientError);
}

} // namespace
} // namespace qrtln

#endif
