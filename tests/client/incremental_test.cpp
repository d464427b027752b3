// Differential and incremental backups: what each set takes, what it builds on, and what it owes.
#include "client/base/error.h"
#include "client/base/process_note.h"
#include "client/sets/index_guard.h"
#include "client/sets/manifest.h"
#include "client/sets/owed.h"
#include "client/sets/server_scope.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Incremental : public OverTheSimulator {};

TEST_F(Incremental, SavesWhatTheRulesSelectAndTheLogsWhichTheServerThenRemoves) {
    backup(0);
    EXPECT_EQ(index(), ""); // no database had been backed up on this log: none has an entry
    fill_extents(3);
    json set = backup(0, "incr");
    EXPECT_THAT(databases(set["set"]), IsEmpty()); // the log brings them up to date
    EXPECT_EQ(set["logs"], (json{{"first", 1}, {"last", 4}, {"active", 4}}));
    EXPECT_THAT(extents(), ElementsAre(4)); // the others are in the store alone

    const std::string base = backup(0)["set"], before = index();
    EXPECT_THAT(before, HasSubstr("names.nsf="));
    domino("compact", "names.nsf"); // a new DBIID
    fill_extents(2);
    std::string previous = base;
    for (int number = 0; number < 3; ++number) {
        set = backup(0, "incr");
        // Not backed up under this DBIID; the entry in the index is updated by the second.
        EXPECT_EQ(databases(set["set"]), number < 2 ? Words{"names.nsf"} : Words{});
        EXPECT_EQ(index() == before, number == 0);
        const Manifest stored = manifest(set["set"]);
        EXPECT_EQ(stored.base, base);
        EXPECT_EQ(stored.previous, std::exchange(previous, stored.set));
        EXPECT_THAT(stored.log_gaps, IsEmpty());
    }
    EXPECT_EQ(list().back()["base"], base);
}

TEST_F(Incremental, DifferentialSavesWhatChangedSinceTheBase) {
    backup(1, "incr", {}, "hint: take one first: `qrtln backup --level full`");
    EXPECT_FALSE(fs::exists(m_store));
    backup(0, "full", {"mail"}); // named databases are no base
    backup(0, "copy");
    backup(1, "diff");
    settle();
    const json base = backup(0, "diff", {"--auto-full"}, "becomes a full one");
    EXPECT_EQ(base["level"], "full");
    put("mail/user1.nsf");
    const json diff = backup(0, "diff", {"--auto-full"});
    EXPECT_EQ(diff["base"], base["set"]);
    EXPECT_THAT(databases(diff["set"]), ElementsAre("mail/user1.nsf"));
    EXPECT_FALSE(diff.contains("logs"));
    EXPECT_THAT(extents(), ElementsAre(1));
    EXPECT_THAT(databases(backup(0, "diff", {"names.nsf"})["set"]), IsEmpty());
}

TEST_F(Incremental, WhatTheModulePassesOverOrDoubtsHasFailed) {
    // The text is of a failed item, or of a warning.
    const std::tuple<const char*, const char*, int, const char*> cases[] = {
        {"incr", "NSFDbGetLogInfo#1=513", 3, "could not tell whether it needs to be backed up"},
        {"diff", "NSFDbGetModifiedNoteTable=513", 3, "could not tell whether it was modified"},
        {"diff", "ConvertTextToTIMEDATE=513", 3, "ConvertTextToTIMEDATE() failed"},
        {"diff", "ConvertTIMEDATEToText=513", 3, "mail/user1.nsf"}, // the module says nothing
        {"copy", "NSFBackupEndApplyChangeInfo=513", 3, "the changes made during its copy"},
        {"full", "NSFDbGetLogInfo#1=513", 0, "the index of databases has no entry for it"},
    };
    backup(0);
    put("mail/user1.nsf");
    for (const auto& [level, faults, code, text] : cases) {
        const json set = backup(code, level, {}, "", fault(faults));
        EXPECT_THAT(set[code == 0 ? "warnings" : "failed"].dump(), HasSubstr(text)) << faults;
    }
}

TEST_F(Incremental, AFullStoreLosesNothingWhateverStepItStops) {
    SmallFileSystem small(m_scratch / "small", 32 << 20);
    if (!small.mounted())
        GTEST_SKIP() << "mounting a small file system needs root";
    m_store = m_scratch / "small/store";
    backup(0);
    backup(0);
    // Each run has a little more room than the one before, until it is enough.
    const std::string filler = m_scratch / "small/filler";
    bool owed_once = false;
    for (std::uintmax_t room = 0;; room += 30 << 10) {
        SCOPED_TRACE(room);
        domino("compact", "names.nsf");
        fill_extents(3);
        const auto logs = extents();
        const std::string index_before = index();
        write_file(filler, std::string(fs::space(m_store).available - room, 'x'));
        const Outcome outcome = run_client(on_server({"backup", "--level", "incr"}));
        fs::remove(filler);
        if (outcome.exit_code == 0)
            break;
        ASSERT_EQ(outcome.exit_code, 1) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr("No space left"));
        EXPECT_EQ(extents(), logs);
        EXPECT_EQ(index(), index_before);
        // By now it counts as backed up for the server.
        const bool prepared = owed().find("names.nsf") != std::string::npos;
        owed_once = owed_once || prepared;
        const json next = backup(0, "incr");
        EXPECT_THAT(databases(prepared ? next["owed"]["set"] : next["set"]),
                    ElementsAre("names.nsf"));
        EXPECT_EQ(next["logs"]["first"], logs.front());
        EXPECT_EQ(owed(), "");
    }
    EXPECT_TRUE(owed_once);
}

TEST_F(Incremental, LogsThatAnotherProgramTookAreReportedAtOnce) {
    backup(0);
    fill_extents(3);
    const std::string own = std::exchange(m_store, m_scratch / "second");
    backup(0, "full", {"--take-over"});
    fs::remove(m_data + "/qrtln_archive.json"); // as a program that leaves no note
    m_store = own;
    EXPECT_EQ(backup(16, "incr", {},
                     "the transaction logs 1 to 3 are missing between the sets ")["status"],
              "complete, logs missing");
    EXPECT_THAT(m_errors, HasSubstr("hint: take a full backup now"));
    EXPECT_THAT(extents(), ElementsAre(4)); // the set is whole all the same
    for (const char* level : {"full", "incr"})
        EXPECT_EQ(backup(0, "incr", {"--auto-full"})["level"], level);
}

TEST_F(Incremental, OtherStylesOfLoggingAreToldWithWhatToDo) {
    const std::tuple<const char*, const char*, int, const char*> cases[] = {
        {"circular", "circular transaction logging", 0, "take --level diff or full"},
        {"none", "no transaction logging", 0, "take --level diff or full"},
        {"linear", "linear transaction logging", 3, "take --level full"}}; // no database is known
    for (const auto& [style, text, diff_code, advice] : cases) {
        init(std::string("--style ") + style);
        fs::remove_all(m_store);
        backup(0);
        backup(diff_code, "diff", {}, diff_code == 0 ? "" : advice);
        backup(14, "incr", {}, text);
        EXPECT_THAT(m_errors, HasSubstr(advice));
    }
}

// No later set would have them: an incremental one takes what is logged, the index has no entry.
TEST_F(Incremental, DatabasesThatItWouldNotSelectComeFirstInASetOfTheirOwn) {
    const std::string odd = std::string(240, 'n') + ".nsf";
    domino("create", "a=b.nsf");
    domino("create", odd);
    backup(0);
    EXPECT_THAT(databases(backup(0, "incr")["owed"]["set"]), ElementsAre("a=b.nsf", odd));
    domino("create", "new.nsf");
    domino("create", "unlogged.nsf --unlogged");
    EXPECT_THAT(databases(backup(0, "incr", {}, "2 databases are in no set since ")["owed"]["set"]),
                ElementsAre("a=b.nsf", "new.nsf", odd, "unlogged.nsf"));
    for (const char* level : {"incr", "diff"})
        EXPECT_THAT(databases(backup(0, level)["owed"]["set"]), ElementsAre("a=b.nsf", odd));
    EXPECT_EQ(owed(), "");
}

TEST_F(Incremental, AFolderThatIsAwayIsNotRemoved) {
    const std::string mail = m_data + "/mail", base = backup(0)["set"];
    OwedDatabases(m_store + "/runtime/owed.jsonl").add(m_data, m_user1);
    const std::string list = owed();
    fs::rename(mail, m_scratch / "mail");
    for (bool empty : {false, true}) { // as where a disk is not mounted
        if (empty)
            fs::create_directory(mail);
        backup(3, "incr", {}, "1 databases of " + mail);
        const json full = backup(3);
        EXPECT_EQ(full["failed"][0]["path"], mail);
        EXPECT_THAT(full["failed"].dump(), HasSubstr(base));
        EXPECT_EQ(owed(), list);
    }
    backup(1, "full", {"--removed", "names.nsf"});
    backup(0, "full", {"--removed", "mail", "--removed", mail + "/below"});
    EXPECT_EQ(owed(), "");
}

// What was changed while the clock was behind looks older than the base.
TEST_F(Incremental, ABaseFromTheFutureIsNotBuiltOnAnyMore) {
    Manifest base = manifest(backup(0)["set"]);
    const std::int64_t started = base.started;
    const auto refused = [&](std::int64_t base_start, const char* text) {
        base.started = base_start;
        write_manifest(base);
        for (const char* level : {"diff", "incr"})
            backup(1, level, {}, text);
    };
    refused(started + 172800, "the clock shows ");
    refused(started, "was set back once"); // the clock is right again
    const std::string list = m_store + "/runtime/distrusted.json";
    write_file(list, read_file(list) + " "); // then no base is trusted
    refused(started, "was set back once");
    EXPECT_EQ(backup(0, "diff", {"--auto-full"})["level"], "full");
    backup(0, "diff");
    base = manifest(backup(0)["set"]);
    const std::int64_t later = manifest(backup(0, "incr")["set"]).started;
    settle();
    refused(later + 1, "was set back when the set ");
}

// A lost entry would mean a database that is silently not saved.
TEST_F(Incremental, AnIndexThatIsNotTheOneTheNewestSetLeftCallsForAFullBackup) {
    const std::string file = m_store + "/runtime/qrtln_DBIID.ini";
    backup(0);
    backup(0); // the server knows the databases as backed up: they get entries
    const std::string older = index();
    domino("compact", "names.nsf"); // another identity
    backup(0);
    backup(0);
    const std::string note =
        m_store + "/sets/" + backup(0, "incr")["set"].get<std::string>() + ".index";
    const std::string whole[] = {index(), read_file(note)};
    const std::function<void()> damages[] = {[&] { write_file(note, whole[1] + " "); },
                                             [&] { write_file(file, older); },
                                             [&] { fs::remove(file); }, [&] { flip_a_bit(file); }};
    for (const auto& damage : damages) {
        write_file(file, whole[0]);
        write_file(note, whole[1]);
        EXPECT_EQ(verify(), 0);
        damage();
        const auto before = snapshot(m_store);
        for (const char* level : {"incr", "diff"})
            backup(4, level, {}, "--level full");
        EXPECT_EQ(snapshot(m_store), before);
        EXPECT_EQ(verify(), 4);
    }
    EXPECT_EQ(backup(0, "incr", {"--auto-full"})["level"], "full");
}

// A set that went without a word is damage wherever one would build on it; a forgotten one is not,
// but what only it had must be saved anew. No other store may tear the chain meanwhile.
TEST_F(Incremental, SetsThatAreGoneAreToldAndNothingBuildsOnWhatIsLeft) {
    for (const char* level : {"full", "incr", "full", "incr", "incr"})
        backup(0, level);
    const json before = list();
    for (std::size_t number : {2, 3, 4}) { // the base, in the middle, and the newest
        const std::string set = before[number]["set"], file = m_store + "/sets/" + set + ".json";
        SCOPED_TRACE(set);
        const std::string text = read_file(file);
        fs::remove(file);
        for (const char* command : {"verify", "list"}) {
            const Outcome told = on_store({command});
            EXPECT_EQ(told.exit_code, 4);
            EXPECT_THAT(told.output + told.errors, HasSubstr("the set " + set + " is missing"));
        }
        backup(4, "diff");
        write_file(file, text);
    }

    EXPECT_EQ(on_store({"forget", before[0]["set"]}).exit_code, 1); // one builds on it
    Words newest = {"forget", before[2]["set"], before[3]["set"], before[4]["set"]};
    EXPECT_EQ(on_store(newest).exit_code, 1); // no other set has their state of the databases
    newest.push_back("--even-last");
    EXPECT_EQ(on_store(newest).exit_code, 0);
    EXPECT_EQ(verify(), 4); // the index is theirs
    backup(4, "incr");
    backup(0, "incr", {"--auto-full"});
    EXPECT_EQ(verify(), 0);

    const std::string own = std::exchange(m_store, m_scratch / "second");
    backup(1, "full", {}, "the store " + own + " archives");
    backup(0, "copy");
    backup(0, "full", {"--take-over"});
    fs::rename(m_store, m_scratch / "mounted"); // its disk is away: nothing begins in its place
    backup(1, "full", {}, "perhaps its disk is not mounted");
    EXPECT_FALSE(fs::exists(m_store));
    m_store = m_scratch / "mounted"; // it was moved
    backup(0);
    m_store = own;
    backup(1, "incr");
}

// Another user worked on a copy of the index: until the store has it, no crash may leave an old one
// that is relied on, and only what was noted before the close is taken.
TEST_F(Incremental, TheNoteOfTheIndexDecidesWhatIsTakenFromAnotherUser) {
    backup(0);
    const std::string set = backup(0)["set"], copy = m_tmp + "/qrtln_DBIID.ini";
    auto store = open_directory_store(m_store, StoreAccess::change);
    const auto guard = [&] { return IndexGuard(*store, host_name()); };
    for (const std::string left : {"hostile", "new"}) {
        const std::string before = index();
        write_file(copy + ".4711", "new");
        IndexGuard closing = guard();
        closing.expect_close(set, {.data_directory = m_data, .child = 4711, .folder = m_tmp});
        EXPECT_NE(guard().problem_for(m_data), "");
        write_file(copy, left);
        EXPECT_EQ(closing.check_closed(set, m_data, left == "new"), "");
        closing.note_closed(set);
        EXPECT_EQ(guard().problem_for(m_data), "");
        EXPECT_EQ(index(), left == "new" ? left : before);
    }
    EXPECT_THROW(guard().expect_close(set, {.child = 4712, .has_entries = true}), ClientError);
}

} // namespace
} // namespace qrtln::test
