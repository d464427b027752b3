// Documents that come back into a live database, told one by one.
#include "client/base/error.h"
#include "client/base/text.h"
#include "client/domino/note_ids.h"
#include "tests/client/simulated_server.h"

#include <sqlite3.h>

namespace qrtln::test {
namespace {

TEST(NoteIds, AreReadInEveryFormAndWithEveryLineEnd) {
    EXPECT_THAT(parse_note_ids("\xEF\xBB\xBF"
                               "2294\r\nNT000008FA\r\n\r\n# a comment\r0x8FE\n 2294 \t\nnt902",
                               "ids"),
                ElementsAre(2294, 2298, 2302, 2306));
    for (const std::string line : {"0", "0x80000000", "4294967296", "-4", "0x", "22 94", "2294h"}) {
        try {
            parse_note_ids("2290\r\r\n" + line + "\n", "ids");
            ADD_FAILURE() << line;
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 2);
            EXPECT_THAT(error.what(), HasSubstr("ids, line 3: '" + line + "'"));
        }
    }
    EXPECT_THROW(parse_note_ids("# nothing\n", "ids"), ClientError);
}

class Documents : public OverTheSimulator {
  protected:
    Documents() {
        const json ids = shown("mail/user1.nsf --ids")["noteIds"];
        for (const json& id : ids)
            m_ids.push_back(id.dump());
        m_set = backup(0)["set"];
    }
    // Runs the command, and tells "ID OUTCOME" of each document of its report.
    Words documents(int exit_code, Words words, const Environment& environment = {}) {
        words.insert(words.begin(), "documents");
        words.insert(words.end(), {"--since", "2020-01-01 00:00", "mail/user1.nsf"});
        m_report = run(exit_code, words, "", environment);
        Words outcomes;
        if (m_report.contains("documents"))
            for (const json& document : m_report["documents"])
                outcomes.push_back(document["id"].dump() + " " +
                                   document["outcome"].get<std::string>());
        return outcomes;
    }
    // The same as it is expected: documents by their number, with their outcome.
    Words told(const std::vector<std::pair<std::size_t, const char*>>& outcomes) const {
        Words texts;
        for (const auto& [number, outcome] : outcomes)
            texts.push_back(m_ids[number] + " " + outcome);
        return texts;
    }
    Words changed(int exit_code, const std::string& list, Words more = {},
                  const Environment& environment = {}) {
        write_file(m_scratch / "ids", list);
        more.insert(more.begin(), {"changed", "--ids", m_scratch / "ids"});
        return documents(exit_code, more, environment);
    }
    void delete_notes(const std::string& ids) const { domino("delete", "mail/user1.nsf " + ids); }
    void change(const std::string& id) const { put("mail/user1.nsf", "--text changed --id " + id); }
    // What the statement gives first, with the file alone: no server knows of it.
    std::string in_user1(const std::string& statement) const {
        std::string value;
        sqlite3* database = nullptr;
        EXPECT_EQ(::sqlite3_open(m_user1.c_str(), &database), SQLITE_OK);
        auto take = [](void* target, int, char** row, char**) {
            *static_cast<std::string*>(target) = row[0];
            return 0;
        };
        EXPECT_EQ(::sqlite3_exec(database, statement.c_str(), take, &value, nullptr), SQLITE_OK);
        ::sqlite3_close(database);
        return value;
    }
    // Gives a note another universal id, an SQL expression; returns the one that it had.
    std::string set_unid(const std::string& id, const std::string& value) const {
        std::string before = in_user1("SELECT hex(unid) FROM notes WHERE note_id=" + id);
        in_user1("UPDATE notes SET unid=" + value + " WHERE note_id=" + id);
        return before;
    }
    // What the documents say, by id.
    std::map<std::string, std::string> contents() const {
        return json::parse(
            in_user1("SELECT json_group_object(note_id, subject || ':' || hex(body)) FROM notes"));
    }

    std::string m_list = m_data + "/noteids_list.txt";
    std::map<std::string, std::string> m_before = contents();
    Words m_ids;
    std::string m_set;
    json m_report;
};

TEST_F(Documents, DeletedOnesComeBackUnreadAndADryRunTellsThem) {
    delete_notes(m_ids[0] + " " + m_ids[3] + " " + m_ids[5]);
    const auto server = snapshot(m_data), logs = snapshot(m_server + "/logs");
    const std::time_t deleted = std::time(nullptr) / 60 * 60;
    EXPECT_EQ(documents(0, {"deleted", "--dry-run"}),
              told({{0, "candidate"}, {3, "candidate"}, {5, "candidate"}}));
    // To the minute, which may have ended between the deletion and the line above.
    const std::string earliest = m_report["documents"][0]["earliest"];
    EXPECT_THAT(earliest, testing::AnyOf(utc_time(deleted), utc_time(deleted - 60)));
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_EQ(snapshot(m_server + "/logs"), logs);
    // Its copy may be the last that an incremental backup would have made.
    EXPECT_THAT(owed(), HasSubstr(m_user1));

    EXPECT_EQ(documents(0, {"deleted"}),
              told({{0, "back_unread"}, {3, "back_unread"}, {5, "back_unread"}}));
    EXPECT_EQ(domino("unread", "mail/user1.nsf"),
              m_ids[0] + "\n" + m_ids[3] + "\n" + m_ids[5] + "\n");
    EXPECT_EQ(contents(), m_before);
    EXPECT_FALSE(fs::exists(m_list));
    EXPECT_THAT(documents(0, {"deleted"}), IsEmpty()); // nothing is left to do
}

TEST_F(Documents, ChangedOnesAreReplacedAndWhatDoesNotComeBackIsExplained) {
    change(m_ids[1]);
    change(m_ids[4]);
    const std::string list =
        note_id_text(static_cast<NoteId>(std::stoul(m_ids[1]))) + "\r\n" + m_ids[4] + "\r\n";
    const auto server = snapshot(m_data);
    EXPECT_EQ(changed(0, list, {"--dry-run"}), told({{1, "candidate"}, {4, "candidate"}}));
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_EQ(changed(0, list), told({{1, "replaced"}, {4, "replaced"}}));
    EXPECT_EQ(contents(), m_before);
    EXPECT_EQ(domino("unread", "mail/user1.nsf"), "");

    delete_notes(m_ids[2]);
    EXPECT_THAT(changed(3, "999999\n" + m_ids[2] + "\n"),
                ElementsAre("999999 not_in_set", m_ids[2] + " unchanged"));
    EXPECT_THAT(changed(3, "999999", {"--dry-run"}), ElementsAre("999999 not_in_set"));
    EXPECT_FALSE(fs::exists(m_list));
}

TEST_F(Documents, FailuresAreToldDocumentByDocument) {
    for (const auto& [call, code, outcome] : {std::tuple{"NSFDbCopyNote=513", 3, " failed"},
                                              {"NSFDbSetUnreadNoteTable=513", 0, " back"},
                                              {"SECKFMGetUserName=259", 0, " back"}}) {
        if (contents().contains(m_ids[0]))
            delete_notes(m_ids[0]);
        EXPECT_THAT(documents(code, {"deleted"}, fault(call)), ElementsAre(m_ids[0] + outcome));
    }
    change(m_ids[3]);
    const auto server = snapshot(m_data);
    EXPECT_EQ(changed(3, m_ids[3], {}, fault("NSFNoteDelete=513")), told({{3, "failed"}}));
    for (const char* call : {"NSFDbOpen=513", "NotesInitExtended=272"}) {
        changed(14, m_ids[3], {}, fault(call));
        EXPECT_EQ(snapshot(m_data), server); // and no list of ids
    }
    EXPECT_FALSE(fs::exists(m_store + "/runtime/lost_documents.json"));
}

TEST_F(Documents, OneThatTheSetCannotGiveKeepsNoOtherFromComingBackAndIsNotDeleted) {
    // Cut off, it is read as another's, and no copy of it is possible.
    set_unid(m_ids[5], "zeroblob(16)");
    const std::string unid = set_unid(m_ids[1], "x'00'");
    backup(0);
    set_unid(m_ids[1], "x'" + unid + "'");
    for (std::size_t i = 0; i < 3; ++i)
        change(m_ids[i]);
    EXPECT_EQ(changed(3, m_ids[0] + "\n" + m_ids[1] + "\n" + m_ids[2]),
              told({{1, "failed"}, {0, "replaced"}, {2, "replaced"}}));
    EXPECT_THAT(contents()[m_ids[1]], HasSubstr("changed"));
    delete_notes(m_ids[0] + " " + m_ids[1]);
    EXPECT_EQ(documents(3, {"deleted"}), told({{0, "back_unread"}, {1, "failed"}}));
}

TEST_F(Documents, WhatWasDeletedAndNotReplacedComesBackBeforeAnythingElseIsDeleted) {
    for (std::size_t i = 3; i < 6; ++i)
        change(m_ids[i]);
    // Another document has its universal id: the live database does not take the copy.
    set_unid(m_ids[0], "x'" + set_unid(m_ids[4], "randomblob(16)") + "'");
    const std::string list = m_ids[3] + "\n" + m_ids[4] + "\n" + m_ids[5];
    EXPECT_EQ(changed(3, list), told({{3, "replaced"}, {4, "lost"}, {5, "not_reached"}}));
    EXPECT_THAT(m_errors, HasSubstr("do not run the same command again"));
    const std::string command = m_report["bring_back"];
    EXPECT_THAT(command, AllOf(HasSubstr(" deleted --since 20"), HasSubstr(" --set " + m_set)));
    changed(1, list);
    EXPECT_THAT(m_errors, HasSubstr(command));

    EXPECT_EQ(documents(3, {"deleted"}), told({{4, "failed"}}));
    EXPECT_THAT(m_errors, HasSubstr("higher note ids are not reached"));
    changed(1, list);
    set_unid(m_ids[0], "randomblob(16)");
    EXPECT_EQ(documents(0, {"deleted"}), told({{4, "back_unread"}}));
    EXPECT_EQ(changed(0, list), told({{3, "replaced"}, {4, "replaced"}, {5, "replaced"}}));
    EXPECT_FALSE(fs::exists(m_store + "/runtime/lost_documents.json"));
}

TEST_F(Documents, WhatMakesNoSenseOrIsDamagedEndsBeforeTheServerHearsOfIt) {
    delete_notes(m_ids[0]);
    change(m_ids[1]);
    const auto server = snapshot(m_data);
    documents(2, {"changed"}); // no list
    run(2, {"documents", "deleted", "mail/user1.nsf"});
    run(2, {"documents", "deleted", "mail/user1.nsf", "--since", "2199-01-01 00:00"});
    run(1, {"documents", "deleted", "user.id", "--since", "2020-01-01 00:00"});
    changed(2, "12\nnonsense\n");
    flip(m_set, m_user1);
    documents(4, {"deleted", "--dry-run"});
    changed(4, m_ids[1]);
    EXPECT_EQ(snapshot(m_data), server);
    flip(m_set, m_user1);

    fs::create_symlink(m_scratch / "elsewhere", m_list); // another's list, that a link leads to
    for (const char* how : {"--dry-run", "--verbose"}) {
        changed(1, m_ids[1], {how});
        EXPECT_THAT(m_errors, HasSubstr(m_list));
        EXPECT_FALSE(fs::exists(m_scratch / "elsewhere"));
    }
    fs::remove(m_list);
    EXPECT_EQ(snapshot(m_data), server);
    domino("lose", "mail/user1.nsf");
    documents(1, {"deleted"});
    EXPECT_THAT(m_errors, HasSubstr("qrtln restore"));
}

} // namespace
} // namespace qrtln::test
