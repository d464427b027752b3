// The acceptance of a server over the simulator, with surprises that the report must name.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

namespace qrtln::test {

using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;
class Check : public OverTheSimulator {
  protected:
    Check() {
        const std::string ini = m_server + "/notes.ini";
        write_file(ini, read_file(ini) + "ServerName=test/server\n");
        std::filesystem::create_directory(m_scratch / "kept");
        fill_extents(2);
        m_notes = shown("mail/user1.nsf")["notes"];
    }
    nlohmann::json m_notes; // how many the database has that is written to
    Words m_looking = {"check", "--try", "--no-names"};
    Words m_writing = {"check", "--try", "--database", "mail/user1.nsf"};
    Words m_marking = {
        "check",      "--try", "--logs", "--keep-log", m_scratch / "kept", "--yes-mark-one-log",
        "test/server"};
};

TEST_F(Check, OfACleanServerIsToldCleanAndWritesOnlyToWhatWasNamed) {
    const auto data = snapshot(m_server + "/data");
    const auto logs = snapshot(m_server + "/logs");
    EXPECT_EQ(run(0, m_looking)["status"], "clean");
    m_marking.back() = "another/server";
    EXPECT_EQ(run(1, m_marking)["status"], "failed");
    EXPECT_EQ(snapshot(m_server + "/data"), data);
    EXPECT_EQ(snapshot(m_server + "/logs"), logs);
    m_marking.back() = "test/server";
    m_marking.insert(m_marking.end(), m_writing.begin() + 2, m_writing.end());
    EXPECT_THAT(run(0, m_marking).dump(), HasSubstr("as of NSFBackupStop"));
    EXPECT_EQ(read_file(m_scratch / "kept/1-S0000001.TXN"), logs.at("/S0000001.TXN"));
    EXPECT_EQ(extents().front(), 2);
    EXPECT_EQ(shown("mail/user1.nsf")["notes"], m_notes);
}

TEST_F(Check, EndsAtTheFirstSurpriseAndNamesIt) {
    const char* simulator = QRTLN_SIMULATOR_DIRECTORY;
    const struct {
        const Words& words;
        const char* library;
        const char* faults;
        const char* name;
        const char* text;
        const char* never_called = "nothing";
    } cases[] = {
        {m_looking, QRTLN_POOR_NOTES, "", "symbols", "50 of the functions, NotesInitExtended, "},
        {m_looking, QRTLN_POOR_NOTES, "all", "crash", "signal 6 (Aborted) in loading"},
        {m_writing, simulator, "OSTranslate#2=1", "names", "log.nsf; 1 in all"},
        // What another has begun is not ended; what was deleted is brought back.
        {m_writing, simulator, "NSFBackupStart=20132", "backup", "20132", "NSFBackupEnd"},
        {m_marking, simulator, "NSFBeginArchivingLogs=3758", "session", "3758", "NSFEndArch"},
        {m_writing, simulator, "NSFDbCopyNote#3=9", "documents", "9"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        Environment environment = {{"NOTES_SIM_JOURNAL", m_scratch / test.name},
                                   {"Notes_ExecDirectory", test.library},
                                   {"NOTES_SIM_FAULTS", test.faults}};
        const nlohmann::json stop = run(14, test.words, environment)["findings"].back();
        EXPECT_EQ(stop["name"], test.name);
        EXPECT_THAT(stop["text"], HasSubstr(test.text));
        EXPECT_THAT(read_file(m_scratch / test.name), Not(HasSubstr(test.never_called)));
        EXPECT_EQ(shown("mail/user1.nsf")["notes"], m_notes);
        EXPECT_TRUE(std::filesystem::is_empty(m_tmp));
    }
}

TEST_F(Check, SaysOfEachMoodWhatABackupWouldMeet) {
    Words both = m_marking, slow = m_writing;
    both.insert(both.end(), m_writing.begin() + 2, m_writing.end());
    slow.insert(slow.end(), {"--step-timeout", "3"});
    const struct {
        const char* moods;
        const Words& words;
        int exit_code;
        const char* verdict;
        const char* name;
        const char* text;
    } cases[] = {
        {"ended,flags,foreign,locale,logs", both, 0, "ok", "locale", "for the library"},
        {"session", m_marking, 3, "told", "listing", "16160"},
        {"before", m_writing, 0, "told", "writes", "as of NSFBackupStart"},
        {"zone", m_looking, 14, "stop", "zone", "-5 h 30 min"},
        {"slow\nSimSlow=NSFBackupStart=never", slow, 14, "stop", "hang", "NSFBackupStart"},
    };
    ASSERT_EQ(domino("create " + m_server + " mail/caf\xC3\xA9.nsf"), 0);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.moods);
        set_moods(test.moods);
        std::vector<std::string> unexpected;
        bool found = false;
        const auto report = run(test.exit_code, test.words, {{"LC_ALL", "C"}, {"TZ", "UTC"}});
        for (const auto& finding : report["findings"]) {
            if (finding["name"] == test.name && finding["verdict"] == test.verdict)
                found = finding["text"].get<std::string>().find(test.text) != std::string::npos;
            else if (finding["verdict"] != "ok" && finding["step"] > 1)
                unexpected.push_back(finding.dump());
        }
        EXPECT_TRUE(found);
        EXPECT_THAT(unexpected, testing::IsEmpty());
    }
}

} // namespace qrtln::test

#endif
