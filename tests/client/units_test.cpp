// What the client reads from people, servers and systems: times and the copies that they choose,
// the variables of a server, bytes of any encoding, errors of the loader.
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/text.h"
#include "client/domino/notes_ini.h"
#include "client/domino/original.h"
#include "client/domino/point_in_time.h"
#include "client/module/control_variables.h"
#include "client/module/environment.h"
#include "client/module/told_lines.h"
#include "client/recovery/logs.h"
#include "client/restore/selection.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "tests/client/run_client.h"

#include <ctime>
#include <sstream>
#include <unistd.h>

namespace qrtln::test {
namespace {

// Of more lines than there is room for none gets lost; what the other process writes is not
// trusted.
TEST(ToldLines, ComeInTheirOrderHoweverManyThereAre) {
    const FileDescriptor memory = make_line_memory();
    EXPECT_TRUE(is_line_memory(memory.get()));
    EXPECT_NE(::ftruncate(memory.get(), 0), 0);
    LineSender sender(memory.get());
    LineReceiver receiver(memory.get());
    std::vector<std::size_t> sizes;
    auto take = [&](LineKind kind, const std::string& text) {
        EXPECT_EQ(kind, sizes.size() % 2 == 0 ? LineKind::log : LineKind::trace);
        EXPECT_EQ(text, std::string(text.size(), static_cast<char>('a' + sizes.size() % 26)));
        sizes.push_back(text.size());
    };
    int stalls = 0;
    std::vector<std::size_t> sent;
    for (std::size_t i = 0; i < 2000; ++i) {
        sent.push_back(i == 7 ? 1000000 : i * 7919 % 60000);
        sender.send(i % 2 == 0 ? LineKind::log : LineKind::trace,
                    std::string(sent.back(), static_cast<char>('a' + i % 26)), [&] {
                        ++stalls;
                        EXPECT_TRUE(sender.is_full());
                        return receiver.receive(take);
                    });
    }
    receiver.receive(take);
    EXPECT_EQ(sizes, sent);
    EXPECT_GT(stalls, 100);
    EXPECT_FALSE(receiver.receive(take));
    for (std::uint64_t put : {std::uint64_t{1} << 60, std::uint64_t{0}}) { // bytes that are none
        ASSERT_EQ(::pwrite(memory.get(), &put, sizeof put, 0), 8);
        EXPECT_THROW(receiver.receive(take), std::runtime_error);
    }
    sender.send(static_cast<LineKind>(9), "", [] { return false; });
    EXPECT_THROW(receiver.receive(take), std::runtime_error);
}

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
        {"yesterday", "understood", any},
        {"2026-01-01", "understood", any},
        {"2026-01-01T01:00:00.5Z", "fractions", any},
        {"2026-01-01T01:00+24:00", "no such time", any},
        {"2026-02-30 01:00", "no such time", any},
        {"2026-03-29 02:30", "skips", "2026-03-29T01:30:00+01:00 or 2026-03-29T03:30:00+02:00"},
        {"2026-10-25 02:30", "twice", "2026-10-25T02:30:00+02:00 or 2026-10-25T02:30:00+01:00"}};
    for (const auto& [text, reason, hint] : refused) {
        try {
            parse_moment(text, "--option");
            ADD_FAILURE() << text;
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 2);
            EXPECT_THAT(error.what(), AllOf(HasSubstr(reason), HasSubstr("--option '")));
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
    // The hour that the clock repeats, given in UTC: the server would have to guess.
    for (const char* text : {"20261025T003000Z", "2026-10-25T02:30:00+01:00", "2026-10-25 02:30",
                             "2026-03-29 02:30", "2027-01-15 09:01", "1969-12-31 00:00", "today"})
        EXPECT_THROW(parse_since(text, now), ClientError) << text;
    EXPECT_EQ(parse_since("20261025T020000Z", now).digits, "202610250300");
}

TEST(Times, ThatTheClockShowsTwiceOrNeverAreNotGuessed) {
    // Local time, what it may be, and as what the first of these is told as the start of a base.
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"UTC0", "1969-12-31 23:59:59", "19691231T235959Z", "19691231235959"},
        {berlin, "2024-10-27 03:00", "20241027T020000Z", "20241027030000"},
        {berlin, "2038-10-31 02:30", "20381031T003000Z 20381031T013000Z", "20381031014500"},
        {"Australia/Lord_Howe", "2024-04-07 01:45", "20240406T144500Z 20240406T151500Z",
         "20240407011500"},
        {"Africa/Casablanca", "2024-03-10 02:30", "20240310T013000Z 20240310T023000Z",
         "20240310014500"},
        {"Pacific/Kiritimati", "1994-12-31 12:00", "", ""},
        {"Pacific/Kwajalein", "1969-09-30 12:00", "19690930T010000Z 19691001T000000Z",
         "19690930004500"},
    };
    for (const auto& [name, local, moments, base] : cases) {
        const Zone zone(name);
        std::istringstream words(moments);
        std::vector<std::time_t> times;
        for (std::string text; words >> text;)
            times.push_back(parse_moment(text, "--to").time);
        if (times.size() == 1) {
            EXPECT_EQ(rollforward_value(parse_moment(local, "--to").time), base) << name;
        } else {
            EXPECT_THROW(parse_moment(local, "--to"), ClientError) << name;
        }
        if (times.size() == 2) {
            EXPECT_THROW(rollforward_value(times[1]), ClientError) << name;
        }
        if (!times.empty()) {
            EXPECT_EQ(base_time_variable(times[0]), std::string("SNC_TIME=") + base);
        }
    }
    EXPECT_THROW(base_time_variable(std::time_t{1} << 60), ClientError);
}

constexpr std::int64_t start = 1'000'000'020; // a whole minute

// Started and ended at a minute; the identity of its log; items with the minute of their copy.
using CopiedSet = std::tuple<std::string, int, int, const char*, const char*>;

void write_set(Store& store, const CopiedSet& copied_set) {
    const auto& [set, started, ended, log, contents] = copied_set;
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
    store.write_manifest(set, serialize(manifest));
}

// The newest copy of each, up to a minute; of one log, with its own control file.
TEST(Times, ChooseWhatWasCopiedByThenAndTheLogsOfOneIdentity) {
    const CopiedSet sets[] = {
        {"20010909T014700Z-full", 0, 3, "aaaaaaaa",
         "/d/a.nsf 1 /d/b.nsf 2 /d/gone.nsf 3 /l/S1.TXN 3 /l/S2.TXN 3 /l/nlogctrl.lfh 3"},
        {"20010909T015700Z-full", 10, 20, "bbbbbbbb",
         "/d/a.nsf 11 /d/b.nsf 15 /d/new.nsf 16 /l/S1.TXN 17 /l/nlogctrl.lfh 18"},
        {"20010909T021700Z-copy", 30, 31, "", "/d/a.nsf 0 /l/nlogctrl.lfh 31"}};
    ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write);
    for (const CopiedSet& set : sets)
        write_set(*store, set);
    const ServerScope scope{"", "", "/d", "/d"};
    EXPECT_EQ(load_stored_logs(*store, scope, {}).control->set, std::get<0>(sets[1]));
    // Each selected item as its name and the minute of its set; "!" is left out.
    const std::tuple<int, Words, std::string> cases[] = {
        {2, {}, "refused"},
        {3, {}, "a47 b47 gone47 S147 S247 nlogctrl47 "},
        {12, {}, "a57 b47 S147 S247 nlogctrl47 "},
        {17, {}, "a57 b57 new57 S157 S247! "},
        {31, {}, "a57 b57 new57 S157 nlogctrl57 "}, // when it was copied is not told: by its end
        {0, {}, "a17 b57 new57 S157 nlogctrl57 "},  // the newest
        {12, {"gone.nsf"}, "gone47 "},
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
                got += fs::path(item.item.path).stem().string() + item.set.substr(11, 2) +
                       (item.other_log ? "! " : " ");
        } catch (const ClientError&) {
            got = "refused";
        }
        EXPECT_EQ(got, expected) << at;
    }
}

TEST(NotesIni, NamesIgnoreCaseAndTheLastValueCounts) {
    auto variables = parse_notes_ini("\xEF\xBB\xBF[Notes] =x\r\nDirectory=/other\r\n"
                                     "no equals sign\n DIRECTORY\t= /local/data \r\nA=b=c\n"
                                     "Empty=\nLast=1");
    EXPECT_EQ(variables["directory"], "/local/data");
    EXPECT_EQ(variables["a"], "b=c");
    EXPECT_EQ(variables["empty"], "");
    EXPECT_EQ(variables["last"], "1");
    EXPECT_EQ(variables.size(), 4U);
}

TEST(Text, BytesOfAnyEncodingBecomePrintable) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F"},
        {"\x1b[2J", "\x1b[2J", "\\x1b[2J"},
        {"\xC2\x9B", "\xC2\x9B", "\\xc2\\x9b"},
        {"gr\xFC", "gr\\xfc", "gr\\xfc"},
        {"\x7F\xE2\x80\xAE", "\x7F\xE2\x80\xAE", "\\x7f\\xe2\\x80\\xae"},
        {"\xC0\x80", "\\xc0\\x80", "\\xc0\\x80"},
    };
    for (const auto& [bytes, printable, terminal] : cases) {
        EXPECT_EQ(printable_utf8(bytes), printable);
        EXPECT_EQ(for_terminal(bytes), terminal);
    }
    EXPECT_EQ(json_for_terminal("{\n\"\xC2\x9B\x7F\xE2\x80\xAE\": \"\xF0\x9F\x93\xA7 \xC3\xBC\"}"),
              "{\n\"\\u009b\\u007f\\u202e\": \"\xF0\x9F\x93\xA7 \xC3\xBC\"}");
}

TEST(ModuleEnvironment, TheVeryFileOrSymbolThatIsMissingIsNamed) {
    NotesIni ini;
    ini.program_directory = "/";
    const std::string no_file = ": cannot open shared object file: No such file or directory";
    for (const auto& [text, hint] :
         {std::pair<std::string, const char*>{"cannot load the Notes C API: libx.so.1" + no_file,
                                              "libx.so.1 is missing in /"},
          {"cannot load the Notes C API: libnotes.so" + no_file, "there is no libnotes.so in /"},
          {"/p/libnotes.so: undefined symbol: OSNone",
           "no library has OSNone, which /p/libnotes.so wants"},
          {"the Notes C API that was loaded lacks 2 of the functions needed, the first is A",
           "has no A"}})
        EXPECT_THAT(loader_hint(text, ini), HasSubstr(hint)) << text;
    EXPECT_EQ(loader_hint("Access to data denied.", ini), "");
}

} // namespace
} // namespace qrtln::test
