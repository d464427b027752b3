// Times that people give, that servers read, and the copies that they choose.
#include "client/error.h"
#include "client/original.h"
#include "client/point_in_time.h"
#include "client/recovery_logs.h"
#include "client/restore_plan.h"
#include "client/since_time.h"
#include "client/text.h"
#include "tests/client/run_client.h"

#include <ctime>
#include <gmock/gmock.h>
#include <sstream>

namespace qrtln::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// The process's time zone, for as long as the object lives.
struct Zone {
    explicit Zone(const char* name) {
        ::setenv("TZ", name, 1);
        ::tzset();
    }
    ~Zone() {
        ::unsetenv("TZ");
        ::tzset();
    }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;
};
constexpr const char* berlin = "CET-1CEST,M3.5.0,M10.5.0/3";

TEST(Times, OfAnOptionAreExactlyOneMomentOrAnError) {
    const Zone zone(berlin);
    const std::pair<const char*, std::time_t> accepted[] = {
        {"2026-01-01 01:00", 1767225600},          {"2026-07-01t02:00:05", 1782864005},
        {"20260101T000000Z", 1767225600},          {"2026-01-01 00:00z", 1767225600},
        {"2025-12-31T18:30:00-05:30", 1767225600}, {"2026-03-29T02:30:00+01:00", 1774747800},
    };
    for (const auto& [text, time] : accepted)
        for (const std::string& form : {std::string(text), zoned_time(time), utc_time(time)})
            EXPECT_EQ(parse_moment(form, "--at").time, time) << form;
    EXPECT_EQ(parse_moment("20260101T000000Z", "--at").set_prefix, "20260101T000000Z");
    const char* const any = "2026-11-21T02:49:23Z";
    const std::tuple<const char*, const char*, const char*> refused[] = {
        {"", "understood", any},
        {"yesterday", "understood", any},
        {"2026-01-01", "understood", any},
        {"2026-1-1 01:00", "understood", any},
        {"2026-01-01T01:00:00.5Z", "fractions", any},
        {"2026-01-01T01:00+24:00", "no such time", any},
        {"2026-01-01 01:00 ", "understood", any},
        {"20260101T000000", "understood", any},
        {"2026-02-30 01:00", "no such time", any},
        {"2026-13-01 01:00", "no such time", any},
        {"2026-01-01 25:00", "no such time", any},
        {"20260230T000000Z", "no such time", any},
        {"2026-03-29 02:30", "skips", "2026-03-29T01:30:00+01:00 or 2026-03-29T03:30:00+02:00"},
        {"2026-10-25 02:30", "twice", "2026-10-25T02:30:00+02:00 or 2026-10-25T02:30:00+01:00"}};
    for (const auto& [text, reason, hint] : refused) {
        try {
            parse_moment(text, "--option");
            ADD_FAILURE() << text;
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 2);
            EXPECT_THAT(error.what(),
                        testing::AllOf(HasSubstr(reason), testing::StartsWith("--option '")));
            EXPECT_THAT(error.hint(), HasSubstr(hint));
        }
    }
}

TEST(Times, SinceWhenDocumentsAreSoughtAreMinutesThatTheServerReadsAsNoOther) {
    const Zone zone(berlin);
    constexpr std::time_t now = 1800000000; // 2027-01-15
    const PointInTime point = parse_since("2026-07-01 10:30:59", now);
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
}

TEST(Times, OfABaseAreNeverReadAsLaterThanItsStart) {
    const std::tuple<const char*, std::time_t, const char*> cases[] = {
        {"UTC0", 1709647629, "20240305140709"},
        {berlin, 1720000000, "20240703114640"},
        // 2024-10-27: 02:30 summer time, then 02:30 winter time; 01:59:59 and 03:00 are clear.
        {berlin, 1729987199, "20241027015959"},
        {berlin, 1729989000, "20241027014500"},
        {berlin, 1729992600, "20241027023000"},
        {berlin, 1729994400, "20241027030000"},
        // The hour that was skipped in spring never was a local time.
        {berlin, 1711846800, "20240331030000"},
    };
    for (const auto& [name, start, text] : cases) {
        const Zone zone(name);
        EXPECT_EQ(since_time_text(start), text);
    }
    EXPECT_THROW(since_time_text(std::time_t{1} << 60), ClientError);
}

// The newest copy of each, up to a minute; of one log, with its own control file.
TEST(Times, ChooseWhatWasCopiedByThenAndTheLogsOfOneIdentity) {
    constexpr std::int64_t start = 1'000'000'020; // a whole minute
    // Started and ended at a minute; the identity of its log; items with the minute of their copy.
    const std::tuple<std::string, int, int, const char*, const char*> sets[] = {
        {"20010909T014700Z-full", 0, 3, "aaaaaaaa",
         "/d/a.nsf 1 /d/b.nsf 2 /d/gone.nsf 3 /l/S1.TXN 3 /l/S2.TXN 3 /l/nlogctrl.lfh 3"},
        {"20010909T015700Z-full", 10, 20, "bbbbbbbb",
         "/d/a.nsf 11 /d/b.nsf 15 /d/new.nsf 16 /l/S1.TXN 17 /l/nlogctrl.lfh 18"},
        {"20010909T021700Z-copy", 30, 31, "", "/d/a.nsf 0 /l/nlogctrl.lfh 31"}};
    ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write);
    for (const auto& [set, started, ended, log, contents] : sets) {
        Manifest manifest;
        manifest.set = set;
        manifest.level = set.substr(17);
        manifest.started = start + 60 * started;
        manifest.ended = start + 60 * ended;
        manifest.complete = true;
        manifest.whole_system = manifest.level == "full";
        manifest.data_directory = "/d";
        std::istringstream items(contents);
        std::string path;
        for (int copied = 0; items >> path >> copied;) {
            ManifestItem& item = manifest.items.emplace_back();
            item.path = path;
            item.kind = item_kind_of(path);
            item.status = ItemStatus::stored;
            item.object = std::string(64, 'a');
            item.copied = copied == 0 ? 0 : start + 60 * copied;
            if (item.kind == ItemKind::log)
                item.log = LogIdentity{1, log, false};
        }
        store->write_manifest(set, serialize(manifest));
    }
    const ServerScope scope{"", "", "/d", "/d"};
    EXPECT_EQ(load_stored_logs(*store, scope, {}).control->set, std::get<0>(sets[1]));
    // Each selected item as its name and the last digit of its set's minute; "!" is left out.
    const std::tuple<int, Words, std::string> cases[] = {
        {2, {}, ""}, // the minute; refused
        {3, {}, "a0 b0 gone0 S10 S20 nlogctrl0"},
        {12, {}, "a1 b0 S10 S20 nlogctrl0"},
        {17, {}, "a1 b1 new1 S11 S20!"},
        {31, {}, "a1 b1 new1 S11 nlogctrl1"}, // the time of the copy is not told: before its end
        {32, {}, "a3 b1 new1 S11 nlogctrl1"},
        {0, {}, "a3 b1 new1 S11 nlogctrl1"}, // the newest
        {12, {"/d"}, "a1 b0"},
        {12, {"new.nsf"}, ""},
        {12, {"gone.nsf"}, "gone0"},
    };
    for (const auto& [at, names, expected] : cases) {
        SelectionRequest request;
        request.names = names;
        request.all = names.empty();
        if (at != 0)
            request.at = utc_time(start + 60 * at);
        std::string got;
        try {
            for (const SelectedItem& item : select_for_restore(*store, scope, request).items)
                got += (got.empty() ? "" : " ") + fs::path(item.item.path).stem().string() +
                       (item.set == std::get<0>(sets[0])   ? "0"
                        : item.set == std::get<0>(sets[1]) ? "1"
                                                           : "3") +
                       (item.other_log ? "!" : "");
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 1) << error.what();
        }
        EXPECT_EQ(got, expected) << at;
    }
}

} // namespace
} // namespace qrtln::test
