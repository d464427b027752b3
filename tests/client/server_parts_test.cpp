// Parts of a server that a plain copy of its databases misses: attachment objects, links, and
// databases that nobody can open.
#include "client/attachment_objects.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

struct ServerParts : OverTheSimulator {
    static std::string first(const json& answer, const char* list = "failed") {
        return answer[list].empty() ? "" : answer[list][0]["path"].get<std::string>();
    }
};

TEST_F(ServerParts, EveryStoredDatabaseIsAsTheServerCommittedItWithTheObjectsThatItRefersTo) {
    for (const std::string& objects : {m_data + "/DAOS", m_scratch / "objects"}) {
        fs::remove_all(m_store);
        init("--objects " + objects);
        domino("attach " + m_server + " names.nsf --count 2");
        const std::string out = m_scratch / "out" + std::to_string(objects.size());
        const std::string commits = out + ".commits";
        std::optional<ServerTask> writer("workload " + m_server +
                                         " names.nsf --attach --seconds 1 --manifest " + commits);
        for (const char* level : {"full", "incr"}) {
            const std::string set = backup(0, level, {"--exclude", "*", "--databases-only"})["set"];
            on_store({"extract", set, "--all", "--to", out + set});
            for (const std::string& name : databases(set)) {
                const bool changes = name == "names.nsf";
                EXPECT_EQ(domino("check " + out + set + "/" + name + " --objects " + out + set +
                                 (changes ? " --database " + name + " --manifest " + commits : "")),
                          0)
                    << set << domino_said();
            }
        }
        writer.reset();
        backup(0);
        fs::remove_all(objects);
        EXPECT_EQ(first(backup(3)), objects); // its disk is not mounted
        EXPECT_GE(run(0, {"restore", "mail.box"})["attachment_objects"]["missing"], 2);
        write_file(objects + "/0001/mine.nlo", "of the server");
        run(0, {"recover", "--all", "--replace-live"});
        EXPECT_EQ(domino("check " + m_data + "/names.nsf --objects " + objects), 0);
        EXPECT_EQ(read_file(objects + "/0001/mine.nlo"), "of the server");
    }
}

TEST_F(ServerParts, AnObjectThatIsPurgedDuringTheBackupComesFromAnEarlierSetOrFails) {
    const std::string known = m_data + "/DAOS/0001/known.nlo";
    write_file(known, "known");
    backup(0);
    fs::rename(known, m_data + "/DAOS/0001/other.nlo");
    const NotesIni ini = load_notes_ini(m_server + "/notes.ini");
    std::unique_ptr<Store> store = open_directory_store(m_store, StoreAccess::read);
    AttachmentObjects objects(*store, ini, {.level = "full", .listed = {known, "/unknown.nlo"}});
    const ObjectPlan plan = objects.plan();
    EXPECT_EQ(plan.refer.at(0).path, known);
    EXPECT_EQ(plan.failed.at(0).path, "/unknown.nlo");
}

TEST_F(ServerParts, ADatabaseLinkIsSavedAsItselfAndWhatItLeadsToIsNamed) {
    const std::string link = m_data + "/links/old.nsf", away = m_scratch / "away/old.nsf";
    write_file(away, read_file(m_data + "/names.nsf"));
    write_file(link, away + "\nadmin\n");
    EXPECT_EQ(first(backup(3)), away);
    settle();
    for (const char* level : {"full", "incr", "diff"})
        backup(0, level, {"--exclude", "links/old.nsf"});
    EXPECT_EQ(databases(list().back()["set"]), Words{}); // of the differential one
    fs::rename(link, m_data + "/mail.box");
    run(3, {"restore", "--all", "--activate"});
    EXPECT_EQ(read_file(link), away + "\nadmin\n");
    EXPECT_EQ(read_file(m_data + "/mail.box"), read_file(link));
}

TEST_F(ServerParts, ADatabaseThatCannotBeSavedHoldsUpNothingOnceItIsAcknowledged) {
    const std::string dead = m_data + "/mail/dead.nsf";
    const Words acknowledged = {"--exclude", "mail/dead.nsf"};
    fs::copy_file(m_data + "/names.nsf", dead);
    const std::string whole = backup(0)["set"];
    write_file(dead, "no database, and no link");
    fill_extents(2);
    EXPECT_EQ(first(backup(3, "full", {"--exclude", "*"})), dead);
    EXPECT_GT(extents().size(), 1U);
    for (const char* level : {"full", "incr", "diff"}) {
        const json answer = backup(0, level, acknowledged);
        EXPECT_EQ(first(answer, "left_out_databases"), dead) << level;
        EXPECT_FALSE(answer.contains("owed")) << level; // no set of nothing
        EXPECT_EQ(extents().size(), 1U);
    }
    run(0, {"prove"});
    run(0, {"restore", "--all"}, "its copy of " + whole + " is taken");
    run(0, {"recover", "--all", "--replace-live"});
    fs::copy_file(m_data + "/names.nsf", dead, fs::copy_options::overwrite_existing);
    EXPECT_EQ(databases(backup(0, "incr", acknowledged)["owed"]["set"]).at(0), "mail/dead.nsf");
}

} // namespace
} // namespace qrtln::test
