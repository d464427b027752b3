// What the store keeps beside objects: manifests, the names of sets, the journal of a recovery,
// what is owed.
#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/recovery/journal.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/sets/owed.h"
#include "client/store/canonical_json.h"
#include "client/store/content_check.h"
#include "client/store/reclaim.h"
#include "tests/client/run_client.h"

#include <array>
#include <random>

namespace qrtln::test {
namespace {

int exit_code_of(const std::function<void()>& action) {
    try {
        action();
        return 0;
    } catch (const ClientError& failure) {
        return failure.exit_code();
    }
}

TEST(RecoveryJournal, ComesBackAsItWasAndIsRefusedWithAnyFlippedBit) {
    ScratchFolder scratch;
    const std::string path = scratch / "recovery.json";
    const RecoveryJournalFile file(path);
    EXPECT_FALSE(file.read());
    const std::string whole = to_canonical(nlohmann::json::parse(R"({
        "format": 1, "all": true, "new_dbiid": true, "replace_live": true, "logs_lost": true,
        "recovering": true, "log_folder_lost": true, "names": [{"path": "/data/\n.nsf"}],
        "data_directory": "/data", "into": "/into", "moved": "/a=/b", "from_server": "mail2",
        "pending_folder": "/tmp/x", "to": 1, "logs_end": 2,
        "extents": [{"path": "/logs/1", "object": "f00"}],
        "done": [{"path": "/a", "shortfall": "less", "set": "s"}],
        "databases": [{"path": "/b", "copy": "/c", "link": "/d", "lost": true, "owed": true,
                       "doubt": "why", "set": "s",
                       "before": {"there": true, "inode": 3, "size": 4, "mtime_ns": 5}}]})"));
    write_file(path, whole);
    file.write(file.read().value());
    EXPECT_EQ(read_file(path), whole);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        std::string bad = whole;
        bad[at] = static_cast<char>(bad[at] ^ (1 << at % 8));
        write_file(path, bad);
        ASSERT_EQ(exit_code_of([&] { file.read(); }), 1) << at;
    }
    file.remove();
    EXPECT_FALSE(fs::exists(path));
}

TEST(Catalogue, ResolvesNamesPrefixesAndLatest) {
    ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write);
    EXPECT_EQ(exit_code_of([&] { resolve_set(*store, "latest"); }), 13);
    for (const char* set :
         {"20260101T000000Z-full", "20260101T000001Z-full", "20260102T000000Z-copy"}) {
        Manifest manifest;
        manifest.set = set;
        manifest.level = "full";
        store->write_manifest(set, serialize(manifest));
    }
    EXPECT_EQ(resolve_set(*store, "latest"), "20260102T000000Z-copy");
    EXPECT_EQ(resolve_set(*store, "20260102"), "20260102T000000Z-copy");
    EXPECT_EQ(exit_code_of([&] { resolve_set(*store, "202601"); }), 1);
    EXPECT_EQ(exit_code_of([&] { resolve_set(*store, "2027"); }), 13);
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

// Versions of some contents, changed here and there as users change databases, or anew, or not.
class ContentHistories {
  public:
    explicit ContentHistories(Store& store) : m_store(store) {}

    // Stores the next version of each; some break off first.
    void store_versions() {
        std::vector<std::pair<StoredObject, std::string>> stored;
        for (std::string& bytes : m_bytes) {
            auto earlier = m_versions.find(&bytes);
            const bool known = earlier != m_versions.end();
            const std::uint64_t changed = known ? change(bytes) : fill(bytes, 70'000);
            const auto before = known ? std::optional(earlier->second.back().first) : std::nullopt;
            if (m_random() % 4 == 0)
                m_store.create_content(before)->write(as_bytes(bytes)); // it is left at that
            std::unique_ptr<ObjectWriter> writer = m_store.create_content(before);
            for (std::size_t at = 0, piece = 0; at < bytes.size(); at += piece)
                writer->write(
                    as_bytes(std::string_view(bytes).substr(at, piece = 1 + m_random() % 30'000)));
            stored.emplace_back(writer->finish(), bytes);
            const std::uint64_t stored_plain = stored.back().first.changed_size;
            EXPECT_TRUE(stored_plain <= changed || stored_plain == bytes.size()); // whole at times
        }
        const FinishedContents finished = m_store.finish_contents();
        for (std::size_t i = 0; i < stored.size(); ++i) {
            const auto& [object, bytes] = stored[i];
            m_versions[&m_bytes[i]].emplace_back(
                BlockContent{object.hash, object.number ? finished.contents.at(*object.number).place
                                                        : object.map},
                bytes);
        }
        m_store.keep_added();
    }

    // All of them are as they were, by each way to read them.
    void check_versions() {
        ContentCheck check(m_store.packs(), [] {});
        for (const auto& [bytes, versions] : m_versions)
            for (const auto& [content, expected] : versions) {
                std::string read;
                EXPECT_EQ(m_store
                              .read_content(content,
                                            [&](Bytes part) {
                                                read.append(
                                                    reinterpret_cast<const char*>(part.data()),
                                                    part.size());
                                            })
                              .problem,
                          "");
                EXPECT_TRUE(read == expected);
                EXPECT_EQ(check.add(content, expected.size()), "");
                EXPECT_LE(m_store.packs().read_map(content.map, content.name).packs.size(), 32U);
            }
        for (const std::string& pack : m_store.packs().packs(nullptr))
            check.check_pack(pack, true);
        EXPECT_TRUE(check.damaged().empty());
        for (const auto& [bytes, versions] : m_versions)
            for (const auto& [content, expected] : versions)
                EXPECT_EQ(check.problem_of(content), "");
    }

    // Only the newest versions stay, and their room.
    void forget_versions() {
        StoreUse use;
        for (auto& [bytes, versions] : m_versions) {
            versions.erase(versions.begin(), versions.end() - 2);
            for (const auto& [content, expected] : versions) {
                use.maps.insert(content.map.file);
                use.blocks.add(m_store.packs().read_map(content.map, content.name));
            }
        }
        const Reclaimed planned = m_store.reclaim(use, true, [] {});
        const Reclaimed done = m_store.reclaim(use, false, [] {});
        EXPECT_EQ(done.packs, planned.packs);
        EXPECT_GT(done.packs, 0U);
        EXPECT_GT(done.rewritten, 0U);
        const Reclaimed again = m_store.reclaim(use, false, [] {});
        EXPECT_EQ(again.packs + again.rewritten + again.bytes, 0U);
    }

  private:
    std::uint64_t fill(std::string& bytes, std::size_t most) {
        bytes.resize(m_random() % most);
        for (char& byte : bytes)
            byte = static_cast<char>(m_random());
        return bytes.size();
    }
    // Returns how many bytes of blocks that concerns at most.
    std::uint64_t change(std::string& bytes) {
        constexpr std::uint64_t block = 4096;
        const std::size_t size = bytes.size();
        switch (m_random() % 8) {
        case 0:
            return fill(bytes, 200'000);
        case 1:
            return 0;
        case 2:
            bytes.append(m_random() % 9000, 'a');
            return bytes.size() - size + block;
        case 3:
            bytes.resize(size - std::min<std::size_t>(size, m_random() % 9000));
            return block;
        default:
            for (std::size_t i = 0, at = 0; size > 0 && i < 3; ++i, at = m_random() % size)
                bytes[at] = static_cast<char>(m_random());
            return 3 * block;
        }
    }

    Store& m_store;
    std::mt19937 m_random{20261122};
    std::array<std::string, 4> m_bytes;
    std::map<const std::string*, std::vector<std::pair<BlockContent, std::string>>> m_versions;
};

TEST(Contents, EveryVersionOfManyReadsAsItWasWritten) {
    ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write, nullptr, {4096});
    ContentHistories histories(*store);
    for (int i = 0; i < 100; ++i)
        histories.store_versions();
    histories.check_versions();
    histories.forget_versions();
    histories.check_versions();
    for (int i = 0; i < 10; ++i)
        histories.store_versions(); // they build on packs that were written anew
    histories.check_versions();
    EXPECT_EQ(exit_code_of([&] { // a store keeps the size of its blocks
                  store.reset();
                  open_directory_store(scratch / "store", StoreAccess::write, nullptr, {8192});
              }),
              1);
}

TEST(OwedDatabases, SurviveAHalfWrittenLineAndAStrikeThatFailed) {
    ScratchFolder scratch;
    const std::string file = scratch / "owed.jsonl", odd = "/data/gr\xFC\n.nsf";
    for (const std::string& path : {odd, std::string("/data/a.nsf"), odd})
        OwedDatabases(file).add("/data", path);
    const std::string whole = read_file(file);
    OwedDatabases(file).add("/other", "/other/a.nsf");
    fs::resize_file(file, fs::file_size(file) - 1);
    OwedDatabases owed(file);
    EXPECT_THAT(owed.of("/data"), ElementsAre("/data/a.nsf", odd));
    EXPECT_THAT(owed.of("/other"), ElementsAre());
    EXPECT_EQ(read_file(file), whole); // the next line begins a line
    owed.add("/other", "/other/a.nsf");
    EXPECT_EQ(owed.strike("/data", {odd, "/data/never.nsf"}), 0);
    // A strike that fails half way leaves nobody knows what: the next entry brings all back.
    fs::create_directory(file + ".tmp"); // in the way of the new list
    EXPECT_NE(owed.strike("/other", {"/other/a.nsf"}), 0);
    EXPECT_THROW(owed.add("/data", "/data/b.nsf"), ClientError);
    fs::remove(file + ".tmp");
    fs::remove(file);
    owed.add("/data", "/data/b.nsf");
    EXPECT_THAT(OwedDatabases(file).of("/data"), ElementsAre("/data/a.nsf", "/data/b.nsf"));
    EXPECT_THAT(OwedDatabases(file).of("/other"), ElementsAre("/other/a.nsf"));
}

} // namespace
} // namespace qrtln::test
