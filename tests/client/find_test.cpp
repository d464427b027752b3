// One history of a server, and what is found in it: items, differences, sets.
#include "client/base/process_note.h"
#include "client/base/text.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Find : public OverTheSimulator {
  protected:
    json on(int code, Words words, const std::string& says = "") {
        words.push_back("--json");
        const Outcome outcome = on_store(words);
        EXPECT_EQ(outcome.exit_code, code) << testing::PrintToString(words) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(says)) << testing::PrintToString(words);
        return json::parse(outcome.output);
    }
    // "PATH SETS" of what is found, the sets by their numbers.
    Words found(int code, Words words) {
        words.insert(words.begin(), "find");
        Words lines;
        const json items = on(code, words)["items"];
        for (const json& item : items) {
            lines.push_back(item["path"].get<std::string>() + " ");
            for (const json& copy : item["copies"])
                lines.back() += number(copy["set"]);
        }
        return lines;
    }
    // "CHANGE PATH" of what is different between two sets, but for what the server itself changes.
    Words differences(const std::string& one, const std::string& other) {
        Words lines;
        const json changes = on(0, {"diff", one, other})["differences"];
        for (const json& change : changes)
            if (const std::string path = change["path"]; path.ends_with(".nsf"))
                lines.push_back(change["change"].get<std::string>() + " " + path);
        return lines;
    }
    std::string listed(int code, Words words) {
        words.insert(words.begin(), "list");
        std::string numbers;
        const json sets = on(code, words)["sets"];
        for (const json& set : sets)
            numbers += number(set["set"]);
        return numbers;
    }
    std::string number(const std::string& set) const {
        const auto at = std::find(m_sets.begin(), m_sets.end(), set);
        return std::to_string(at - m_sets.begin());
    }

    Words m_sets;
};

TEST_F(Find, ItemsDifferencesAndSetsOfOneHistory) {
    backup(0);
    domino("create", "mail/new.nsf");
    domino("compact", "names.nsf"); // another instance
    fs::remove(m_user2);
    backup(0, "incr");
    put("mail/user1.nsf", "--count 20 --text changed");
    fs::permissions(m_data + "/names.nsf", fs::perms(0640));
    backup(0);
    backup(0, "copy", {"names.nsf"});
    backup(0, "copy", {"--server", "mail2"});
    // 0: full, 1: what no set has yet, 2: incr, 3: full, 4: copy of one, 5: of another server
    for (const json& set : list())
        m_sets.push_back(set["set"]);

    const std::tuple<Words, Words> searches[] = {
        {{"NEW.NSF", "--server", host_name()}, {"mail/new.nsf 31"}},
        {{"mail/user*.nsf", "--server", host_name()}, {"mail/user1.nsf 30", "mail/user2.nsf 0"}},
        {{"user2.nsf", m_data + "/mail/New.nsf"},
         {"mail/new.nsf 31", "mail/new.nsf 5", "mail/user2.nsf 0"}},
        {{"Names.nsf", "--until", m_sets[3].substr(0, 16)}, {"names.nsf 320"}},
        {{"names.nsf", "--since", m_sets[4].substr(0, 16)}, {"names.nsf 4", "names.nsf 5"}},
    };
    for (const auto& [words, expected] : searches) {
        Words lines = found(0, words);
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(lines, expected) << testing::PrintToString(words);
    }
    EXPECT_THAT(found(0, {"mail"}),
                Contains("mail/new.nsf 31")); // a folder holds for what is in it
    on(13, {"find", "nothing.nsf"}, "matches 'nothing.nsf'");
    on(2, {"find", "../x"}, "matches no path");
    const json names = on(0, {"find", "names.nsf", "--server", host_name()})["items"][0]["copies"];
    EXPECT_EQ(names[3]["bytes"], item(m_sets[0], m_data + "/names.nsf").size);
    for (const auto& [copy, changed] : {std::pair{0, false}, {1, false}, {2, true}, {3, true}})
        EXPECT_EQ(names[copy]["dbiid_changed"], changed) << copy;

    // An incr holds what it saved alone: what is not in it is as it was, also what was deleted.
    EXPECT_EQ(differences(m_sets[0], m_sets[2]), Words({"new mail/new.nsf", "changed names.nsf"}));
    EXPECT_EQ(differences(m_sets[2], m_sets[3]),
              Words({"changed mail/user1.nsf", "gone mail/user2.nsf", "changed names.nsf"}));
    EXPECT_EQ(differences(m_sets[3], m_sets[2]),
              Words({"changed mail/user1.nsf", "new mail/user2.nsf", "changed names.nsf"}));
    EXPECT_EQ(differences(m_sets[3], m_sets[4]), Words());
    const json changes = on(0, {"diff", m_sets[0], m_sets[3]})["differences"];
    for (const json& change : changes) {
        if (change["path"] == "mail/user1.nsf") {
            EXPECT_GT(change["changed_blocks"], 0);
            EXPECT_LT(change["changed_blocks"], change["blocks"]);
        }
        if (change["path"] == "names.nsf") {
            EXPECT_EQ(change["after"]["mode"], "0640");
            EXPECT_NE(change["before"]["dbiid"], change["after"]["dbiid"]);
        }
    }
    on(1, {"diff", m_sets[3], m_sets[5]}, "of different servers");
    EXPECT_THAT(on_store({"diff", m_sets[0], m_sets[2]}).output,
                HasSubstr("items are in it, the others"));

    // Nothing that is damaged or missing is hidden by a filter.
    const std::string manifest = m_store + "/sets/" + m_sets[2] + ".json",
                      text = read_file(manifest);
    for (bool damaged : {false, true}) {
        if (damaged)
            write_file(manifest, text + " ");
        const int code = damaged ? 4 : 0;
        const std::tuple<Words, const char*, const char*> filters[] = {
            {{}, "012345", "012345"},
            {{"--server", "mail2"}, "5", "25"},
            {{"--level", "full", "--since", m_sets[3].substr(0, 16)}, "3", "23"},
            {{"--until", utc_time(1)}, "", "2"},
            {{"--database", "user2.nsf"}, "0", "02"},
            {{"--database", "mail/N*"}, "135", "1235"},
        };
        for (const auto& [words, whole, with_damage] : filters)
            EXPECT_EQ(listed(code, words), damaged ? with_damage : whole)
                << testing::PrintToString(words);
        on(damaged ? 4 : 13, {"list", "--server", "mail3"},
           damaged ? "" : "no set of the server mail3");
        EXPECT_EQ(found(code, {"user2.nsf"}), Words({"mail/user2.nsf 0"}));
    }
    EXPECT_EQ(found(4, {"nothing.nsf"}), Words()); // perhaps in the one that cannot be read
    EXPECT_THAT(on(4, {"diff", m_sets[0], m_sets[3]}, "not known: its manifest")["unread"],
                SizeIs(1));
    write_file(manifest, text);

    flip(m_sets[0], m_user2);
    EXPECT_EQ(on(0, {"find", "user2.nsf"})["items"][0]["copies"][0]["state"],
              "stored"); // not known
    EXPECT_EQ(verify(), 4);
    EXPECT_EQ(on(4, {"find", "user2.nsf"})["items"][0]["copies"][0]["state"], "damaged");
}

TEST_F(Find, SetsOfSomeDatabasesAreComparedInWhatBothHold) {
    const std::string one = backup(0, "copy", {"mail"})["set"];
    put("mail/user1.nsf");
    const std::string other = backup(0, "copy", {"mail/user1.nsf", "names.nsf"})["set"];
    EXPECT_EQ(differences(one, other), Words({"changed mail/user1.nsf"}));
    EXPECT_EQ(on(0, {"diff", one, "latest"})["not_compared"],
              json({"mail/user2.nsf", "names.nsf"}));
}

} // namespace
} // namespace qrtln::test
