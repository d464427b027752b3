// The acceptance of a server, with surprises that the report must name.
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Check : public OverTheSimulator {
  protected:
    Check() {
        add_to_notes_ini("ServerName=test/server");
        fs::create_directory(m_scratch / "kept");
        fill_extents(2);
        m_notes = shown("mail/user1.nsf")["notes"];
    }
    json m_notes; // how many the database has that is written to
    Words m_looking = {"check", "--try", "--no-names"};
    Words m_writing = {"check", "--try", "--database", "mail/user1.nsf"};
    Words m_marking = {
        "check",      "--try", "--logs", "--keep-log", m_scratch / "kept", "--yes-mark-one-log",
        "test/server"};
};

TEST_F(Check, OfACleanServerIsToldCleanAndWritesOnlyToWhatWasNamed) {
    const auto data = snapshot(m_data), logs = snapshot(m_server + "/logs");
    const json report = run(0, m_looking);
    EXPECT_EQ(report["status"], "clean");
    EXPECT_THAT(report["findings"].back()["text"].dump(), HasSubstr("was saved at copy level"));
    m_marking.back() = "another/server";
    EXPECT_EQ(run(1, m_marking)["message_type"], "exit_error");
    auto looked_at = snapshot(m_data);
    looked_at["/log.nsf"] = data.at("/log.nsf"); // the server keeps when it was backed up last
    EXPECT_EQ(looked_at, data);
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
    using Text = const char*;
    const std::tuple<const Words&, Text, Text, Text, Text, Text> cases[] = {
        {m_looking, QRTLN_POOR_NOTES, "", "symbols", "50 of the functions, NotesInitExtended",
         "none"},
        {m_looking, QRTLN_POOR_NOTES, "all", "crash", "signal 6 (Aborted) in loading", "none"},
        {m_writing, simulator, "OSTranslate#2=1", "names", "log.nsf; 1 in all", "none"},
        // What another has begun is not ended; what was deleted is brought back.
        {m_writing, simulator, "NSFBackupStart=20132", "backup", "20132", "NSFBackupEnd"},
        {m_marking, simulator, "NSFBeginArchivingLogs=3758", "session", "3758", "NSFEndArch"},
        {m_writing, simulator, "NSFDbCopyNote#3=9", "documents", "9", "none"},
    };
    for (const auto& [words, library, faults, name, text, never_called] : cases) {
        const std::string journal = m_scratch / name;
        const json report = run(14, words, "",
                                {{"NOTES_SIM_JOURNAL", journal},
                                 {"Notes_ExecDirectory", library},
                                 {"NOTES_SIM_FAULTS", faults}});
        EXPECT_EQ(report["findings"].back()["name"], name);
        EXPECT_THAT(report["findings"].back()["text"], HasSubstr(text));
        EXPECT_THAT(read_file(journal), Not(HasSubstr(never_called)));
        EXPECT_EQ(shown("mail/user1.nsf")["notes"], m_notes);
    }
}

// Without --try.
TEST_F(Check, ReadsWhatTheLibraryHasAndLoadsNothing) {
    const std::string library = read_file(QRTLN_POOR_NOTES "/libnotes.so");
    const std::tuple<std::string, const char*, const char*> cases[] = {
        {library, "told", "another library has to have these functions"},
        {library.substr(0, library.size() - 64), "stop", "its tables are not whole"},
        {library.substr(0, 63), "stop", "its tables are not whole"},
        {"#!/bin/sh\n" + library, "stop", "it is no 64-bit shared library"},
    };
    for (const auto& [content, verdict, text] : cases) {
        write_file(m_scratch / "libnotes.so", content);
        const json report = run_client({"check", "--json", "--notes-ini", m_server + "/notes.ini"},
                                       {{"Notes_ExecDirectory", m_scratch.path()}})
                                .document();
        json symbols;
        for (const json& finding : report["findings"])
            if (finding["name"] == "symbols")
                symbols = finding;
        EXPECT_EQ(symbols["verdict"], verdict) << report.dump(1);
        EXPECT_THAT(symbols["text"].dump(), HasSubstr(text));
    }
}

TEST_F(Check, SaysOfEachMoodWhatABackupWouldMeet) {
    Words both = m_marking, slow = m_writing;
    both.insert(both.end(), m_writing.begin() + 2, m_writing.end());
    slow.insert(slow.end(), {"--step-timeout", "3"});
    using Case = std::tuple<const char*, const Words&, int, const char*, const char*, const char*>;
    const Case cases[] = {
        {"ended,flags,foreign,locale,logs", both, 0, "ok", "locale", "for the library"},
        {"session", m_marking, 3, "told", "listing", "16160"},
        {"before", m_writing, 0, "told", "writes", "as of NSFBackupStart"},
        {"zone", m_looking, 14, "stop", "zone", "-5 h 30 min"},
        {"slow\nSimSlow=NSFBackupStart=never", slow, 14, "stop", "hang", "NSFBackupStart"},
    };
    domino("create", "mail/caf\xC3\xA9.nsf");
    for (const auto& [moods, words, code, verdict, name, text] : cases) {
        SCOPED_TRACE(moods);
        add_to_notes_ini(std::string("SimStrict=") + moods);
        bool found = false;
        const json report = run(code, words, "", {{"LC_ALL", "C"}, {"TZ", "UTC"}});
        for (const json& finding : report["findings"]) {
            const bool is_it = finding["name"] == name && finding["verdict"] == verdict;
            if (is_it)
                found = finding["text"].get<std::string>().find(text) != std::string::npos;
            EXPECT_TRUE(is_it || finding["verdict"] == "ok" || finding["step"] <= 1) << finding;
        }
        EXPECT_TRUE(found);
    }
}

} // namespace
} // namespace qrtln::test
