// Sets that go, and what must stay.
#include "client/sets/retention.h"
#include "client/store/canonical_json.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

// Sets as "server level day", a day a set, the newest last; what they need is the one before.
TEST(Retention, KeepsWhatThePolicySaysAndWhatThatNeeds) {
    ::setenv("TZ", "UTC", 1);
    const Words sets = {"a full 2026-09-30", "a full 2026-10-05", "a incr 2026-10-06",
                        "a incr 2026-10-07", "b full 2026-10-07", "a full 2026-10-12",
                        "a copy 2026-11-01", "a full 2026-11-02", "a full 2026-11-02"};
    RetentionPolicy last, daily, weekly, monthly, within, proven;
    last.last = 1;
    daily.daily = 3;
    weekly.weekly = 3;
    monthly.monthly = 9;
    within.within = parse_retention_time("3w2d");
    proven.proven = true;
    const std::pair<RetentionPolicy, Words> table[] = {
        {last, {"4", "8"}},
        {daily, {"4", "5", "6", "8"}},
        {weekly, {"4", "5", "6", "8"}},
        {monthly, {"0", "4", "5", "8"}},
        {within, {"4", "5", "6", "7", "8"}},
        {proven, {"1", "2", "3"}},
    };
    std::vector<RetentionSet> all;
    for (std::size_t i = 0; i < sets.size(); ++i) {
        const std::string level = sets[i].substr(2, 4);
        std::tm day{};
        ASSERT_NE(::strptime(sets[i].c_str() + 7, "%Y-%m-%d", &day), nullptr);
        RetentionSet set;
        set.set = std::to_string(i);
        set.server = sets[i].substr(0, 1);
        set.started = ::timegm(&day) + static_cast<std::int64_t>(i);
        set.level = level;
        set.is_base = level == "full";
        set.proven = i == 3;
        if (level == "incr")
            set.needs = {std::to_string(i - 1)};
        set.databases = {i == 0 ? "gone.nsf" : "names.nsf"};
        all.push_back(set);
    }
    const auto kept = [&](Retention retention) {
        Words names;
        for (const RetentionSet& set : all)
            if (!retention.reason(set.set).empty())
                names.push_back(set.set);
        return names;
    };
    for (const auto& [policy, expected] : table) {
        Retention retention(all);
        retention.keep_by(policy);
        EXPECT_EQ(kept(retention), expected) << &policy - &table[0].first;
    }
    Retention chains(all), copies(all);
    chains.keep_current_chains();
    EXPECT_EQ(kept(chains), Words({"4", "8"}));
    copies.keep_last_copies();
    EXPECT_EQ(kept(copies), Words({"0", "4", "8"}));
    for (const char* bad : {"", "3", "d", "-1d", "1x", "1d2", "999999999999d"})
        EXPECT_FALSE(parse_retention_time(bad)) << bad;
}

class Forget : public OverTheSimulator {
  protected:
    json forget(int code, Words words) {
        words.insert(words.begin(), "forget");
        words.push_back("--json");
        const Outcome outcome = on_store(words);
        EXPECT_EQ(outcome.exit_code, code) << outcome.errors;
        m_errors = outcome.errors;
        return code == 0 ? json::parse(outcome.output) : json();
    }
};

TEST_F(Forget, WhatGoesFreesItsRoomAndWhatStaysIsWhole) {
    Words sets;
    std::string saved;
    for (int i = 0; i < 5; ++i) {
        put("mail/user1.nsf");
        saved = digest("mail/user1.nsf");
        sets.push_back(backup(0)["set"]);
        if (i == 0)
            fs::remove(m_user2);
    }
    flip(sets[4], m_user1); // a copy that is known to be damaged does not count
    EXPECT_EQ(verify(), 4);
    EXPECT_EQ(forget(0, {"--keep-last", "1", "--dry-run"})["forgotten"], json({sets[2], sets[1]}));
    flip(sets[4], m_user1);
    EXPECT_EQ(verify(), 0);
    const auto before = snapshot(m_store);
    EXPECT_EQ(forget(0, {"--keep-last", "1", "--dry-run"})["forgotten"].size(), 3U);
    EXPECT_EQ(snapshot(m_store), before);
    forget(2, {});
    forget(1, {sets[0]});
    EXPECT_THAT(m_errors, HasSubstr("has the last copy of " + m_user2));

    auto reader = open_directory_store(m_store, StoreAccess::read);
    reader->hold_sets({sets[1]});
    forget(11, {sets[1]});
    const json done = forget(0, {"--keep-last", "1"});
    EXPECT_EQ(done["forgotten"], json({sets[3], sets[2]}));
    EXPECT_EQ(done["kept"][1],
              json({{"set", sets[1]}, {"why", "somebody reads it at the moment"}}));
    EXPECT_GT(done["freed_bytes"], 0);
    reader.reset();
    sets.push_back(backup(0, "full", {"--forget", "--keep-last 1"})["set"]);
    EXPECT_EQ(forget(0, {"--keep-last", "1"})["forgotten"], json::array());
    EXPECT_THAT(list(), SizeIs(2));
    EXPECT_EQ(verify(), 0);
    run(0, {"restore", "mail/user2.nsf", "--activate"}); // from the oldest
    put("mail/user1.nsf");
    run(0, {"restore", "mail/user1.nsf", "--set", sets[5], "--activate"});
    EXPECT_EQ(digest("mail/user1.nsf"), saved);

    // What a set needs that cannot be read is not known: nothing goes.
    const std::string manifest = m_store + "/sets/" + sets[5] + ".json", text = read_file(manifest);
    write_file(manifest, text + " ");
    const auto damaged = snapshot(m_store);
    forget(4, {sets[0], "--even-last"});
    EXPECT_EQ(snapshot(m_store), damaged);
    fs::rename(manifest, m_scratch / "manifest"); // it may come back from a copy
    forget(4, {sets[0], "--even-last"});
    EXPECT_THAT(m_errors, HasSubstr("the set " + sets[5] + " is missing"));
    fs::rename(m_scratch / "manifest", manifest);
    write_file(manifest, text);
    forget(0, {sets[0], "--even-last"});
    EXPECT_EQ(verify(), 0);
}

// A store of an earlier release, which has whole objects alone.
TEST_F(Forget, AStoreOfAnEarlierReleaseGoesOnAndCanBeConverted) {
    for (const char* folder : {"/objects", "/sets", "/runtime"})
        fs::create_directories(m_store + folder);
    write_file(m_store + "/store.json", to_canonical({{"format", 1}, {"type", "qrtln store"}}));
    const std::string first = backup(0)["set"], names = m_data + "/names.nsf";
    EXPECT_THAT(m_errors, HasSubstr("`qrtln convert`"));
    put("mail/user1.nsf");
    const std::string second = backup(0)["set"];
    EXPECT_EQ(item(second, names).object, item(first, names).object);
    EXPECT_FALSE(is_in_blocks(item(second, names)));
    flip(first, m_user2);
    flip(second, m_user2); // back, as it is the same object
    const std::string damaged =
        m_store + "/" + stored_path(FileKind::object, item(first, m_user1).object);
    flip_a_bit(damaged);

    auto reader = open_directory_store(m_store, StoreAccess::read);
    reader->hold_sets({second});
    const auto convert = [&](int code) {
        const Outcome outcome = on_store({"convert", "--json"});
        EXPECT_EQ(outcome.exit_code, code) << outcome.errors;
        return json::parse(outcome.output)["left_over"];
    };
    EXPECT_EQ(convert(3).size(), 2U); // the damaged object, and that objects are read
    reader.reset();
    flip_a_bit(damaged);
    EXPECT_EQ(convert(0), json::array());
    EXPECT_EQ(convert(0), json::array()); // nothing is left to do
    EXPECT_EQ(verify(), 0);
    EXPECT_THAT(on_store({"verify"}).output, Not(HasSubstr("belong to no")));
    for (const std::string& set : {first, second})
        for (const std::string& path : {names, m_user1, m_user2})
            EXPECT_TRUE(is_in_blocks(item(set, path)));
    EXPECT_EQ(item(second, names).map, item(first, names).map);
    put("mail/user1.nsf");
    EXPECT_LT(backup(0)["changed_bytes"], item(first, m_user1).size);
    run(0, {"restore", "mail/user1.nsf", "--set", first, "--activate"});
    EXPECT_EQ(verify(), 0);
}

} // namespace
} // namespace qrtln::test
