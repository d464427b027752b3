// The directory store: what is in it after every kind of run, and that damage is found.

#include "client/catalogue.h"
#include "client/error.h"
#include "client/owed.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"
#include "client/store/manifest.h"
#include "client/store/store.h"
#include "tests/client/run_client.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <random>
#include <sys/file.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using test::ScratchFolder;
using test::snapshot;
using test::write_file;
using testing::HasSubstr;

std::string random_bytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

StoredObject put(Store& store, const std::string& content) {
    auto writer = store.create_object();
    // Uneven pieces: their bounds must not show.
    for (std::size_t at = 0; at < content.size(); at += 70001)
        writer->write(as_bytes(std::string_view(content).substr(at, 70001)));
    return writer->finish();
}

std::string get(Store& store, const std::string& hash) {
    std::string content;
    ObjectCheck check = store.read_object(hash, [&](Bytes bytes) {
        content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    });
    return check.problem.empty() ? content : "problem: " + check.problem;
}

std::string object_file(const ScratchFolder& scratch, const std::string& hash) {
    return scratch / ("store/objects/" + hash.substr(0, 2) + "/" + hash + ".zst");
}

std::unique_ptr<Store> open_store(const ScratchFolder& scratch) {
    return open_directory_store(scratch / "store", StoreAccess::write);
}

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

TEST(DirectoryStore, FindsAFlippedBitAnywhereInAnObjectAndMendsItWithTheNextCopy) {
    ScratchFolder scratch;
    std::string content = random_bytes(3000, 2);
    std::string hash = put(*open_store(scratch), content).hash;
    std::string file = object_file(scratch, hash);
    std::string good = read_file(file);
    for (std::size_t at = 0; at < good.size(); at += 97) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x10);
        write_file(file, bad);
        EXPECT_THAT(get(*open_store(scratch), hash), HasSubstr("problem")) << at;
    }
    for (const std::string& bad : {good.substr(0, good.size() - 1), good + "x", std::string()}) {
        write_file(file, bad);
        EXPECT_THAT(get(*open_store(scratch), hash), HasSubstr("problem")) << bad.size();
    }
    auto store = open_store(scratch);
    EXPECT_TRUE(put(*store, content).added);
    // The run fails later: the mended object belongs to older sets and stays.
    store->discard_added();
    EXPECT_TRUE(get(*store, hash) == content);
}

// As a disk that is not mounted any more, whose folder is there and empty.
TEST(DirectoryStore, ThatVanishedIsNotTakenForADamagedOne) {
    test::ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write);
    EXPECT_EQ(store->read_object(std::string(64, '0'), [](Bytes) {}).problem, "is missing");
    std::filesystem::rename(scratch / "store", scratch / "away");
    std::filesystem::create_directory(scratch / "store");
    EXPECT_THROW(store->read_object(std::string(64, '0'), [](Bytes) {}), ClientError);
    EXPECT_THAT(vanished_store_hint(), HasSubstr("its disk not mounted"));
}

TEST(DirectoryStore, RemovesWhatAKilledRunLeft) {
    ScratchFolder scratch;
    open_store(scratch);
    auto clean = snapshot(scratch / "store");
    write_file(scratch / "store/objects/incoming-0.tmp", "half");
    write_file(scratch / "store/sets/20231114T221320Z-full.json.tmp", "half");
    for (const char* name : {"qrtln_DBIID.ini.4711", "qrtln_DBIID.ini.4711.new", "owed.jsonl.tmp"})
        write_file(scratch / "store/runtime/" + name, "half");
    open_store(scratch);
    EXPECT_EQ(snapshot(scratch / "store"), clean);
    // A run that was killed while it created the store is completed.
    fs::remove(scratch / "store/store.json");
    open_store(scratch);
    auto again = snapshot(scratch / "store");
    again.erase("/store.json"), clean.erase("/store.json"); // it has an id made by chance
    EXPECT_EQ(again, clean);
}

// A strike that fails half way leaves nobody knows what: the next entry brings all others back.
TEST(OwedDatabases, AreWrittenAnewAfterAStrikeThatFailed) {
    ScratchFolder scratch;
    const std::string file = scratch / "owed.jsonl";
    OwedDatabases owed(file);
    owed.add("/d", "/d/a.nsf");
    owed.add("/d", "/d/b.nsf");
    fs::create_directory(file + ".tmp"); // in the way of the new list
    EXPECT_NE(owed.strike("/d", {"/d/b.nsf"}), 0);
    EXPECT_THROW(owed.add("/d", "/d/a.nsf"), ClientError);
    fs::remove(file + ".tmp");
    fs::remove(file);
    owed.add("/d", "/d/a.nsf");
    EXPECT_THAT(OwedDatabases(file).of("/d"), testing::ElementsAre("/d/a.nsf", "/d/b.nsf"));
}

TEST(Manifest, ComesBackAsItWasWithPathsOfAnyBytes) {
    Manifest manifest = sample_manifest("20231114T221320Z-full");
    std::string problem;
    auto read = parse_manifest(serialize(manifest), manifest.set, problem);
    ASSERT_TRUE(read) << problem;
    EXPECT_EQ(read->items[0].path, manifest.items[0].path);
    EXPECT_EQ(read->items[0].mtime_ns, manifest.items[0].mtime_ns);
    EXPECT_EQ(read->items[0].log->number, 7U);
    EXPECT_EQ(read->arguments, manifest.arguments);
    EXPECT_EQ(serialize(*read), serialize(manifest));
    EXPECT_FALSE(parse_manifest(serialize(manifest), "another", problem));
}

TEST(Manifest, WithAnyBitFlippedOrByteLostIsRefused) {
    std::string good = serialize(sample_manifest("s"));
    std::string problem;
    ASSERT_TRUE(parse_manifest(good, "s", problem));
    for (std::size_t at = 0; at < good.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string bad = good;
            bad[at] = static_cast<char>(bad[at] ^ (1 << bit));
            ASSERT_FALSE(parse_manifest(bad, "s", problem)) << at << " bit " << bit;
        }
        ASSERT_FALSE(parse_manifest(good.substr(0, at), "s", problem)) << at;
    }
    EXPECT_FALSE(parse_manifest(good + "\n", "s", problem));
}

TEST(Manifest, WithAValidChecksumButValuesOfNoManifestIsRefused) {
    const nlohmann::json good = nlohmann::json::parse(serialize(sample_manifest("s")));
    std::string problem;
    ASSERT_TRUE(parse_manifest(to_canonical(good), "s", problem)) << problem;
    const std::vector<std::pair<const char*, nlohmann::json>> changes = {
        {"/format", 4294967297U}, // 1 in 32 bits
        {"/started", 1.5},
        {"/ended", 1e300},
        {"/new_bytes", -1},
        {"/items/0/mode", 4294967296U},
        {"/items/0/mtime_ns", 18446744073709551615U},
        {"/status", "perhaps"},
        {"/items", nlohmann::json::object()},
    };
    for (const auto& [field, value] : changes) {
        nlohmann::json bad = good;
        bad[nlohmann::json::json_pointer(field)] = value;
        EXPECT_FALSE(parse_manifest(to_canonical(bad), "s", problem)) << field;
    }
}

TEST(Catalogue, ResolvesNamesPrefixesAndLatest) {
    ScratchFolder scratch;
    auto store = open_store(scratch);
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
    EXPECT_EQ(new_set_name(*store, 0, "full"), "20260102T000001Z-full");
    EXPECT_EQ(new_set_name(*store, 1'767'312'060, "full"), "20260102T000100Z-full");
    // Names of no set are passed over, and no set is replaced.
    for (const char* name : {"zzz", "20261301T000000Z-full", "20260103T000000Z-full-2"})
        write_file(scratch / "store/sets/" + name + ".json", "x");
    std::vector<std::string> foreign;
    EXPECT_EQ(store->set_names(&foreign).size(), 3U);
    EXPECT_EQ(foreign.size(), 3U);
    EXPECT_EQ(new_set_name(*store, 0, "full"), "20260102T000001Z-full");
    EXPECT_EQ(exit_code_of([&] { store->write_manifest("20260102T000000Z-copy", "x"); }), 1);
    EXPECT_TRUE(load_set(*store, "20260102T000000Z-copy").manifest);
}

} // namespace
} // namespace qrtln
