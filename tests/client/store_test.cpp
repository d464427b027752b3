// What the store keeps beside objects: manifests, the names of sets, what is owed.
#include "client/catalogue.h"
#include "client/error.h"
#include "client/owed.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"
#include "tests/client/run_client.h"

#include <gmock/gmock.h>

namespace qrtln::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

int exit_code_of(const std::function<void()>& action) {
    try {
        action();
        return 0;
    } catch (const ClientError& failure) {
        return failure.exit_code();
    }
}

Manifest sample_manifest(const std::string& set) {
    Manifest manifest;
    manifest.set = set;
    manifest.level = "full";
    manifest.started = 1'700'000'000;
    manifest.ended = 1'700'000'060;
    manifest.complete = true;
    manifest.arguments = {"/data/gr\xFC.nsf"};
    manifest.data_directory = "/data";
    ManifestItem item;
    item.path = "/data/new\nline \xFC.nsf";
    item.kind = ItemKind::database;
    item.status = ItemStatus::stored;
    item.has_metadata = true;
    item.mode = 0640;
    item.mtime_ns = 1'700'000'000'123'456'789;
    item.object = sha256_hex("content");
    item.size = 7;
    item.stored_size = 20;
    item.log = LogIdentity{7, "0a1b2c3d", true};
    item.warnings = {"not logged"};
    manifest.items.push_back(item);
    return manifest;
}

TEST(Manifest, ComesBackAsItWasAndIsRefusedWithAnyChange) {
    const Manifest manifest = sample_manifest("s");
    const std::string good = serialize(manifest);
    std::string problem;
    const auto read = parse_manifest(good, "s", problem);
    ASSERT_TRUE(read) << problem;
    EXPECT_EQ(read->items[0].path, manifest.items[0].path);
    EXPECT_EQ(read->items[0].mtime_ns, manifest.items[0].mtime_ns);
    EXPECT_EQ(read->items[0].log->number, 7U);
    EXPECT_EQ(read->arguments, manifest.arguments);
    EXPECT_EQ(serialize(*read), good);
    EXPECT_FALSE(parse_manifest(good, "another", problem));
    EXPECT_FALSE(parse_manifest(good + "\n", "s", problem));
    for (std::size_t at = 0; at < good.size(); ++at) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ (1 << at % 8));
        ASSERT_FALSE(parse_manifest(bad, "s", problem)) << at;
        ASSERT_FALSE(parse_manifest(good.substr(0, at), "s", problem)) << at;
    }
    const std::pair<const char*, nlohmann::json> values[] = {
        {"/format", 4294967297U}, // 1 in 32 bits
        {"/started", 1.5},
        {"/ended", 1e300},
        {"/new_bytes", -1},
        {"/items/0/mode", 4294967296U},
        {"/items/0/mtime_ns", 18446744073709551615U},
        {"/status", "perhaps"},
        {"/items", nlohmann::json::object()},
    };
    for (const auto& [field, value] : values) { // with a valid checksum
        nlohmann::json bad = nlohmann::json::parse(good);
        ASSERT_TRUE(parse_manifest(to_canonical(bad), "s", problem)) << problem;
        bad[nlohmann::json::json_pointer(field)] = value;
        EXPECT_FALSE(parse_manifest(to_canonical(bad), "s", problem)) << field;
    }
}

TEST(Catalogue, ResolvesNamesPrefixesAndLatest) {
    ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write);
    EXPECT_EQ(exit_code_of([&] { resolve_set(*store, "latest"); }), 1);
    for (const char* set :
         {"20260101T000000Z-full", "20260101T000001Z-full", "20260102T000000Z-copy"})
        store->write_manifest(set, serialize(sample_manifest(set)));
    EXPECT_EQ(resolve_set(*store, "latest"), "20260102T000000Z-copy");
    EXPECT_EQ(resolve_set(*store, "20260102"), "20260102T000000Z-copy");
    EXPECT_EQ(resolve_set(*store, "20260101T000000Z-full"), "20260101T000000Z-full");
    EXPECT_EQ(exit_code_of([&] { resolve_set(*store, "202601"); }), 1);
    EXPECT_EQ(exit_code_of([&] { resolve_set(*store, "2027"); }), 1);
    // Two in a second, and a clock that was set back: the newest still sorts last.
    EXPECT_EQ(new_set_name(*store, 1'767'312'000, "full"), "20260102T000001Z-full");
    EXPECT_EQ(new_set_name(*store, 1'767'312'060, "full"), "20260102T000100Z-full");
    // Names of no set are passed over, and no set is replaced.
    for (const char* name : {"zzz", "20261301T000000Z-full", "20260103T000000Z-full-2"})
        write_file(scratch / "store/sets/" + name + ".json", "x");
    Words foreign;
    EXPECT_EQ(store->set_names(&foreign).size(), 3U);
    EXPECT_EQ(foreign.size(), 3U);
    EXPECT_EQ(new_set_name(*store, 0, "full"), "20260102T000001Z-full");
    EXPECT_EQ(exit_code_of([&] { store->write_manifest("20260102T000000Z-copy", "x"); }), 1);
    EXPECT_TRUE(load_set(*store, "20260102T000000Z-copy").manifest);

    // As a disk that is not mounted any more, whose folder is there and empty: no damage.
    const auto read = [&] { return store->read_object(std::string(64, '0'), [](Bytes) {}); };
    EXPECT_EQ(read().problem, "is missing");
    fs::rename(scratch / "store", scratch / "away");
    fs::create_directory(scratch / "store");
    EXPECT_THROW(read(), ClientError);
}

TEST(OwedDatabases, SurviveTheRunAHalfWrittenLineAndAStrikeThatFailed) {
    ScratchFolder scratch;
    const std::string file = scratch / "owed.jsonl", odd = "/data/gr\xFC\n.nsf";
    {
        OwedDatabases owed(file);
        EXPECT_FALSE(fs::exists(file));
        for (const std::string& path : {odd, std::string("/data/a.nsf"), odd})
            owed.add("/data", path);
        owed.add("/other", "/other/a.nsf");
    }
    const std::string whole = read_file(file);
    const std::size_t last = whole.rfind('\n', whole.size() - 2) + 1;
    for (std::size_t cut = last; cut < whole.size(); ++cut) {
        write_file(file, whole.substr(0, cut));
        OwedDatabases owed(file);
        ASSERT_THAT(owed.of("/data"), ElementsAre("/data/a.nsf", odd));
        ASSERT_THAT(owed.of("/other"), ElementsAre());
        ASSERT_EQ(read_file(file), whole.substr(0, last)); // the next line begins a line
    }
    OwedDatabases owed(file);
    owed.add("/other", "/other/a.nsf");
    EXPECT_EQ(read_file(file), whole);
    EXPECT_EQ(owed.strike("/data", {odd, "/data/never.nsf"}), 0);
    EXPECT_THAT(OwedDatabases(file).of("/data"), ElementsAre("/data/a.nsf"));
    // A strike that fails half way leaves nobody knows what: the next entry brings all back.
    fs::create_directory(file + ".tmp"); // in the way of the new list
    EXPECT_NE(owed.strike("/other", {"/other/a.nsf"}), 0);
    EXPECT_THROW(owed.add("/data", "/data/b.nsf"), ClientError);
    fs::remove(file + ".tmp");
    fs::remove(file);
    owed.add("/data", "/data/b.nsf");
    EXPECT_THAT(OwedDatabases(file).of("/data"), ElementsAre("/data/a.nsf", "/data/b.nsf"));
    EXPECT_THAT(OwedDatabases(file).of("/other"), ElementsAre("/other/a.nsf"));
    EXPECT_EQ(owed.strike("/data", {"/data/a.nsf", "/data/b.nsf"}), 0);
    EXPECT_EQ(owed.strike("/other", {"/other/a.nsf"}), 0);
    EXPECT_FALSE(fs::exists(file));
}

} // namespace
} // namespace qrtln::test
