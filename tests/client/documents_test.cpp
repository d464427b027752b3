// Documents that come back, with the real module over the simulated server, and what is read on the
// way there.
#include "client/error.h"
#include "client/note_ids.h"
#include "client/point_in_time.h"
#include "client/text.h"

#ifdef QRTLN_DOMINO_SIM
#include "tests/client/simulated_server.h"

#include <sqlite3.h>
#endif

#include <cstdlib>
#include <gmock/gmock.h>
#include <optional>

namespace qrtln {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(NoteIds, AreReadInEveryFormAndWithEveryLineEnd) {
    EXPECT_THAT(parse_note_ids("\xEF\xBB\xBF"
                               "2294\r\nNT000008FA\r\n\r\n# a comment\r0x8FE\n 2294 \t\nnt902",
                               "ids"),
                ElementsAre(2294, 2298, 2302, 2306));
    for (const char* line : {"0", "0x80000000", "2147483648", "4294967296", "-4", "8F6", "0x", "NT",
                             "22 94", "2294,2298", "2294h"}) {
        SCOPED_TRACE(line);
        try {
            parse_note_ids(std::string("2290\r\r\n") + line + "\n", "ids");
            ADD_FAILURE() << "accepted";
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 2);
            EXPECT_THAT(error.what(), HasSubstr("ids, line 3: '" + std::string(line) + "'"));
        }
    }
    EXPECT_THROW(parse_note_ids("# nothing\n", "ids"), ClientError);
}

TEST(PointInTime, IsTheMinuteThatTheServerReadsAndNoOther) {
    const char* before = std::getenv("TZ");
    std::optional<std::string> zone = before != nullptr ? std::optional(before) : std::nullopt;
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    constexpr std::time_t now = 1800000000; // 2027-01-15
    PointInTime point = parse_since("2026-07-01 10:30:59", now);
    EXPECT_EQ(point.digits, "202607011030");
    EXPECT_EQ(point.time, 1782894600);
    EXPECT_TRUE(point.cut);
    EXPECT_EQ(parse_since("20260701T083000Z", now).digits, "202607011030");
    EXPECT_FALSE(parse_since("20260701T083000Z", now).cut);
    // The hour that the clock repeats, given in UTC: the server would have to guess.
    for (const char* text : {"20261025T003000Z", "2026-10-25T02:30:00+01:00", "2026-10-25 02:30",
                             "2026-03-29 02:30", "2027-01-15 09:01", "1969-12-31 00:00", "today"})
        EXPECT_THROW(parse_since(text, now), ClientError) << text;
    EXPECT_EQ(parse_since("20261025T020000Z", now).digits, "202610250300");
    zone ? ::setenv("TZ", zone->c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
}

#ifdef QRTLN_DOMINO_SIM

using nlohmann::json;
using test::OverTheSimulator;
using test::read_file;
using test::snapshot;
using test::write_file;

class Documents : public OverTheSimulator {
  protected:
    Documents() {
        for (const auto& [id, text] : m_before)
            m_ids.push_back(id);
        m_set = full_backup();
    }
    std::string id(std::size_t index) const { return std::to_string(m_ids.at(index)); }
    json documents(int exit_code, std::vector<std::string> words,
                   const test::Environment& environment = {}) {
        words.insert(words.begin(), "documents");
        words.insert(words.end(), {"--since", "2020-01-01 00:00", "mail/user1.nsf"});
        return run(exit_code, words, environment);
    }
    json changed(int exit_code, const std::string& list, std::vector<std::string> more = {},
                 const test::Environment& environment = {}) {
        write_file(m_scratch / "ids", list);
        more.insert(more.begin(), {"changed", "--ids", m_scratch / "ids"});
        return documents(exit_code, more, environment);
    }
    // "ID OUTCOME" of each document of a report.
    static std::vector<std::string> outcomes(const json& report) {
        std::vector<std::string> texts;
        for (const json& document : report["documents"])
            texts.push_back(std::to_string(document["id"].get<NoteId>()) + " " +
                            document["outcome"].get<std::string>());
        return texts;
    }
    std::string unread() const {
        EXPECT_EQ(domino("unread " + m_server + " mail/user1.nsf"), 0);
        return read_file(m_scratch / "domino-sim.out");
    }
    void delete_notes(const std::string& ids) const {
        ASSERT_EQ(domino("delete " + m_server + " mail/user1.nsf " + ids), 0);
    }
    void change(const std::string& id) const {
        ASSERT_EQ(domino("put " + m_server + " mail/user1.nsf --text changed --id " + id), 0);
    }
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
    // What the documents say, by id.
    std::map<NoteId, std::string> contents() const {
        std::map<NoteId, std::string> documents;
        json rows = json::parse(
            in_user1("SELECT json_group_object(note_id, subject || ':' || hex(body)) FROM notes"));
        for (const auto& [id, text] : rows.items())
            documents[std::stoul(id)] = text;
        return documents;
    }
    void expect_nothing_left() const {
        EXPECT_TRUE(std::filesystem::is_empty(m_tmp));
        EXPECT_FALSE(std::filesystem::exists(m_list));
    }

    std::string m_data = m_server + "/data";
    std::string m_list = m_data + "/noteids_list.txt";
    std::string m_lost = m_store + "/runtime/lost_documents.json";
    std::string m_user1 = m_data + "/mail/user1.nsf";
    std::map<NoteId, std::string> m_before = contents();
    std::vector<NoteId> m_ids;
    std::string m_set;
};

TEST_F(Documents, ThreeDeletedOnesComeBackUnread) {
    delete_notes(id(0) + " " + id(3) + " " + id(5));
    auto server = snapshot(m_data);
    auto logs = snapshot(m_server + "/logs");
    std::time_t deleted = std::time(nullptr);
    json planned = documents(0, {"deleted", "--dry-run"});
    EXPECT_THAT(outcomes(planned),
                ElementsAre(id(0) + " candidate", id(3) + " candidate", id(5) + " candidate"));
    // To the minute, which may have ended between the deletion and the line above.
    std::string earliest = planned["documents"][0]["earliest"];
    EXPECT_THAT(earliest,
                testing::AnyOf(utc_time(deleted / 60 * 60), utc_time(deleted / 60 * 60 - 60)));
    EXPECT_GT(planned["documents"][0]["before"].get<std::string>(), earliest);
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_EQ(snapshot(m_server + "/logs"), logs);
    // Its copy may be the last that an incremental backup would have made.
    EXPECT_THAT(read_file(m_store + "/runtime/owed.jsonl"), HasSubstr(m_user1));

    json done = documents(0, {"deleted"});
    EXPECT_THAT(outcomes(done), ElementsAre(id(0) + " back_unread", id(3) + " back_unread",
                                            id(5) + " back_unread"));
    EXPECT_EQ(unread(), id(0) + "\n" + id(3) + "\n" + id(5) + "\n");
    EXPECT_EQ(contents(), m_before);
    expect_nothing_left();
    EXPECT_THAT(documents(0, {"deleted"})["documents"], IsEmpty()); // nothing is left to do
}

TEST_F(Documents, TwoChangedOnesAreReplacedFromAListWithCrLf) {
    change(id(1));
    change(id(4));
    std::string list = note_id_text(m_ids[1]) + "\r\n" + id(4) + "\r\n";
    auto server = snapshot(m_data);
    EXPECT_THAT(outcomes(changed(0, list, {"--dry-run"})),
                ElementsAre(id(1) + " candidate", id(4) + " candidate"));
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_NE(contents(), m_before);
    EXPECT_THAT(outcomes(changed(0, list)), ElementsAre(id(1) + " replaced", id(4) + " replaced"));
    EXPECT_EQ(contents(), m_before);
    EXPECT_EQ(unread(), "");
    expect_nothing_left();
}

TEST_F(Documents, WhatIsListedAndDoesNotComeBackIsExplained) {
    ASSERT_EQ(domino("put " + m_server + " mail/user1.nsf --text new"), 0);
    std::string created = read_file(m_scratch / "domino-sim.out");
    created.pop_back();
    delete_notes(id(2));
    EXPECT_THAT(outcomes(changed(3, created + "\n999999\n" + id(2) + "\n")),
                ElementsAre(created + " not_in_set", "999999 not_in_set", id(2) + " unchanged"));
    EXPECT_EQ(changed(3, "999999", {"--dry-run"})["documents"][0]["outcome"], "not_in_set");
    expect_nothing_left();
}

TEST_F(Documents, AListThatIsThereIsNotTouched) {
    write_file(m_list, "another's");
    change(id(0));
    auto server = snapshot(m_data);
    for (const char* how : {"--dry-run", "--verbose"}) {
        changed(1, id(0), {how});
        EXPECT_THAT(m_errors, HasSubstr(m_list));
        EXPECT_EQ(snapshot(m_data), server);
    }
    std::filesystem::remove(m_list);
    std::filesystem::create_symlink(m_scratch / "elsewhere", m_list);
    changed(1, id(0));
    EXPECT_FALSE(std::filesystem::exists(m_scratch / "elsewhere"));
}

TEST_F(Documents, FailuresAreToldDocumentByDocument) {
    for (const auto& [fault, code, outcome] : {std::tuple{"NSFDbCopyNote=513", 3, " failed"},
                                               {"NSFDbSetUnreadNoteTable=513", 0, " back"},
                                               {"SECKFMGetUserName=259", 0, " back"}}) {
        if (contents().contains(m_ids[0]))
            delete_notes(id(0));
        json done = documents(code, {"deleted"}, {{"NOTES_SIM_FAULTS", fault}});
        EXPECT_THAT(outcomes(done), ElementsAre(id(0) + outcome)) << fault;
    }
    change(id(3));
    auto server = snapshot(m_data);
    json done = changed(3, id(3), {}, {{"NOTES_SIM_FAULTS", "NSFNoteDelete=513"}});
    EXPECT_THAT(outcomes(done), ElementsAre(id(3) + " failed"));
    for (const char* fault : {"NSFDbOpen=513", "NotesInitExtended=272"}) {
        changed(14, id(3), {}, {{"NOTES_SIM_FAULTS", fault}});
        EXPECT_EQ(snapshot(m_data), server);
        expect_nothing_left();
    }
    EXPECT_FALSE(std::filesystem::exists(m_lost));
}

TEST_F(Documents, OneThatTheSetCannotGiveKeepsNoOtherFromComingBackAndIsNotDeleted) {
    std::string unid = in_user1("SELECT hex(unid) FROM notes WHERE note_id=" + id(1));
    auto set_unid = [&](const std::string& value) {
        in_user1("UPDATE notes SET unid=x'" + value + "' WHERE note_id=" + id(1));
    };
    // Cut off, it is read as another's, and no copy of it is possible.
    in_user1("UPDATE notes SET unid=zeroblob(16) WHERE note_id=" + id(5));
    set_unid("00");
    full_backup();
    set_unid(unid);
    std::string list;
    for (std::size_t i = 0; i < 3; ++i) {
        change(id(i));
        list += id(i) + "\n";
    }
    for (const char* how : {"--dry-run", "--verbose"})
        EXPECT_THAT(outcomes(changed(3, list, {how})),
                    ElementsAre(id(1) + " failed", HasSubstr(id(0)), HasSubstr(id(2))));
    std::map<NoteId, std::string> replaced = m_before;
    replaced[m_ids[1]] = contents()[m_ids[1]];
    EXPECT_THAT(replaced[m_ids[1]], HasSubstr("changed"));
    EXPECT_EQ(contents(), replaced);

    delete_notes(id(0) + " " + id(1) + " " + id(2));
    EXPECT_THAT(outcomes(documents(3, {"deleted", "--dry-run"})),
                ElementsAre(id(1) + " failed", id(0) + " candidate", id(2) + " candidate"));
    EXPECT_THAT(outcomes(documents(3, {"deleted"})),
                ElementsAre(id(0) + " back_unread", id(1) + " failed", id(2) + " back_unread"));
    expect_nothing_left();
}

TEST_F(Documents, WhatWasDeletedAndNotReplacedComesBackBeforeAnythingElseIsDeleted) {
    std::string unid = in_user1("SELECT hex(unid) FROM notes WHERE note_id=" + id(4));
    for (std::size_t i = 3; i < 6; ++i)
        change(id(i));
    // Another document has its universal id: the live database does not take the copy.
    in_user1("UPDATE notes SET unid=randomblob(16) WHERE note_id=" + id(4));
    in_user1("UPDATE notes SET unid=x'" + unid + "' WHERE note_id=" + id(0));
    std::string list = id(3) + "\n" + id(4) + "\n" + id(5);
    json done = changed(3, list);
    EXPECT_THAT(outcomes(done),
                ElementsAre(id(3) + " replaced", id(4) + " lost", id(5) + " not_reached"));
    std::string command = done["bring_back"];
    EXPECT_THAT(m_errors, HasSubstr("do not run the same command again"));
    EXPECT_THAT(command, HasSubstr(" deleted --since 20"));
    EXPECT_THAT(command, HasSubstr(" --set " + m_set));
    auto server = contents();
    changed(1, list);
    EXPECT_THAT(m_errors, HasSubstr(command));
    EXPECT_EQ(contents(), server);

    EXPECT_THAT(outcomes(documents(3, {"deleted"})), ElementsAre(id(4) + " failed"));
    EXPECT_THAT(m_errors, HasSubstr("higher note ids are not reached"));
    changed(1, list);
    in_user1("UPDATE notes SET unid=randomblob(16) WHERE note_id=" + id(0));
    EXPECT_THAT(outcomes(documents(0, {"deleted"})), ElementsAre(id(4) + " back_unread"));
    EXPECT_THAT(outcomes(changed(0, list)),
                ElementsAre(id(3) + " replaced", id(4) + " replaced", id(5) + " replaced"));
    EXPECT_FALSE(std::filesystem::exists(m_lost));
    expect_nothing_left();
}

TEST_F(Documents, ADamagedContentEndsBeforeTheServerHearsOfIt) {
    delete_notes(id(0));
    change(id(1));
    std::string live = read_file(m_user1);
    flip_a_bit(object_file(m_set, m_user1));
    documents(4, {"deleted"});
    documents(4, {"deleted", "--dry-run"});
    changed(4, id(1));
    EXPECT_EQ(read_file(m_user1), live);
    expect_nothing_left();
}

TEST_F(Documents, RequestsThatMakeNoSenseAreRefused) {
    auto server = snapshot(m_data);
    changed(2, "12\nnonsense\n");
    documents(2, {"changed"}); // no list
    documents(2, {"deleted", "--ids", m_scratch / "ids"});
    run(2, {"documents", "--since", "2020-01-01 00:00", "mail/user1.nsf"});
    run(2, {"documents", "deleted", "mail/user1.nsf"});
    run(2, {"documents", "deleted", "--since", "2199-01-01 00:00", "mail/user1.nsf"});
    run(2, {"documents", "deleted", "--since", "2020-01-01 00:00", "--at", "noon", "names.nsf"});
    EXPECT_THAT(m_errors, HasSubstr("--at 'noon'"));
    run(1, {"documents", "deleted", "--since", "2020-01-01 00:00", "mail"});
    run(1, {"documents", "deleted", "--since", "2020-01-01 00:00", "user.id"});
    EXPECT_EQ(snapshot(m_data), server);
    ASSERT_EQ(domino("lose " + m_server + " mail/user1.nsf"), 0);
    documents(1, {"deleted"});
    EXPECT_THAT(m_errors, HasSubstr("qrtln restore"));
}

#endif

} // namespace
} // namespace qrtln
