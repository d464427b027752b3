// Packs and maps. The first byte chooses:
//   'm'  the rest is the JSON of a map, "PACK" in it standing for the id of a pack of five blocks
//   't'  a line of JSON, the table of a pack, then the plain bytes of its blocks, one frame of at
//   most
//        64 blocks of 4096 bytes after the other
//   'p'  the rest is a whole pack
//   'f'  the rest is the frame of a map, as it lies in a file
//   's'  edits of a sealed file of three chunks: words of two bytes, where, and one, what changes
//        there; where nothing is changed it is cut off
//   'S'  the rest is a sealed file
//   'k'  the rest is the JSON of a key of a store
// The JSON gets its canonical form and checksum. What a reader accepts has the content that its
// name tells, whichever of the readers is asked.
#include <algorithm>
#include <cstring>
#include <fstream>

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"
#include "client/store/compression.h"
#include "client/store/content_check.h"
#include "client/store/pack_reader.h"
#include "client/store/sealing.h"
#include "client/store/store.h"
#include "client/store/wrapped_key.h"
#include "fuzz/support.h"

namespace {

using fuzz::require;
using nlohmann::json;

// A store with one pack; what an input adds to it is taken back.
struct StoreWithPack {
    StoreWithPack() {
        const std::unique_ptr<qrtln::Store> made = qrtln::open_directory_store(
            fuzz::files().file("store"), qrtln::StoreAccess::write, nullptr, {4096});
        const std::unique_ptr<qrtln::ObjectWriter> writer = made->create_content({});
        for (int block = 0; block < 5; ++block) {
            writer->write(qrtln::as_bytes(std::string(block == 4 ? 100 : 4096, 'a' + block)));
        }
        writer->finish();
        made->finish_contents();
        made->keep_added();
        pack = made->packs().packs(nullptr).at(0);
    }
    std::string pack;
    const std::string map = std::string(64, '0'); // the name of the file that has an input's map
    std::unique_ptr<qrtln::Store> store;
};

StoreWithPack& storeWithPack() {
    static StoreWithPack made;
    if (!made.store) { // as one that this process did not make, which it takes nothing of away
        made.store =
            qrtln::open_directory_store(fuzz::files().file("store"), qrtln::StoreAccess::change);
    }
    return made;
}

std::string compressed(const std::string& text) {
    qrtln::FrameCompressor compressor(qrtln::usual_compression);
    const qrtln::Bytes frame = compressor.compress(qrtln::as_bytes(text));
    return {reinterpret_cast<const char*>(frame.data()), frame.size()};
}

// Reads a content by way of each reader: they agree, and accept nothing but what its name tells.
void readAll(qrtln::Store& store, const qrtln::BlockContent& content, std::uint64_t size) {
    std::uint64_t bytes_read = 0;
    const qrtln::ObjectCheck read =
        store.read_content(content, [&](qrtln::Bytes bytes) { bytes_read += bytes.size(); });
    qrtln::ContentCheck check(store.packs(), [] {});
    std::string problem = check.add(content, size);
    for (const auto& [pack, used] : check.use().packs()) {
        check.check_pack(pack, false);
    }
    if (problem.empty()) {
        problem = check.problem_of(content);
    }
    require(read.problem.empty() == problem.empty(), "a content is whole, or it is not");
    require(!read.problem.empty() || bytes_read == size, "a whole content has its size");
}

// All that is done with a map, over the store.
void runMap(const std::string& frame) {
    StoreWithPack& pack = storeWithPack();
    std::string problem;
    const std::optional<qrtln::ContentMap> map =
        qrtln::parse_content_map(qrtln::as_bytes(frame), problem);
    require(map.has_value() == problem.empty(), "a refusal says why");
    if (!map || map->blocks() > 1000) {
        return;
    }
    std::ofstream("store/maps/" + pack.map + ".map", std::ios::binary) << frame;
    const qrtln::BlockContent content{map->name, {pack.map, 0, frame.size()}};
    readAll(*pack.store, content, map->size);
    // The next version is compared with it.
    const std::unique_ptr<qrtln::ObjectWriter> writer = pack.store->create_content(content);
    writer->write(qrtln::as_bytes(std::string(4096, 'a') + std::string(5000, 'x')));
    const qrtln::StoredObject stored = writer->finish();
    const qrtln::FinishedContents finished = pack.store->finish_contents();
    const qrtln::MapPlace place =
        stored.number ? finished.contents.at(*stored.number).place : stored.map;
    require(pack.store->read_content({stored.hash, place}, [](qrtln::Bytes) {}).problem.empty(),
            "what was stored can be read, whatever was there before");
    pack.store->discard_added();
}

void runPack(const std::string& bytes) {
    try {
        qrtln::PackReader pack(
            {bytes.size(), [&](std::uint64_t offset, std::span<std::byte> buffer) {
                 require(offset <= bytes.size() && buffer.size() <= bytes.size() - offset,
                         "a reader stays within its file");
                 std::memcpy(buffer.data(), bytes.data() + offset, buffer.size());
             }});
        require(pack.id().size() == 64, "a pack has an id");
        for (std::uint32_t block = 0; block < std::min(pack.table().blocks, 1000U); ++block) {
            try {
                const qrtln::PackReader::Blocks read = pack.blocks_from(block, 3);
                require(read.count > 0 &&
                            read.bytes.size() == pack.table().plain_size_of(block, read.count),
                        "blocks have the sizes of the table");
            } catch (const qrtln::PackDamage& damage) {
                require(!damage.problem.empty(), "a refusal says why");
            }
        }
    } catch (const qrtln::PackDamage& damage) {
        require(!damage.problem.empty(), "a refusal says why");
    }
}

// A pack whose table says what the input says, and whose other parts are right.
void runTable(std::string_view input) {
    const std::size_t line = std::min(input.find('\n'), input.size());
    const json document = json::parse(input.substr(0, line), nullptr, false);
    if (!document.is_object()) {
        return;
    }
    const std::string plain(input.substr(std::min(line + 1, input.size())));
    std::string bytes;
    for (std::size_t at = 0; at < plain.size(); at += std::size_t{64} * 4096) {
        bytes += compressed(plain.substr(at, std::size_t{64} * 4096));
    }
    const json count = document.value("blocks", json());
    const std::size_t blocks = count.is_number_unsigned() ? count.get<std::size_t>() % 10'000 : 0;
    const std::string table = compressed(qrtln::to_canonical(document));
    const qrtln::PackTrailer trailer{bytes.size(), table.size(), blocks,
                                     qrtln::BlockHasher()(qrtln::as_bytes(table))};
    bytes += table + std::string(blocks * sizeof(qrtln::ShortHash), 'h') + serialize(trailer);
    runPack(bytes);
}

const qrtln::Sealing& sealing() {
    static const qrtln::Sealing made(qrtln::SecretKey::random());
    return made;
}

// Whether it is accepted, as what it was sealed from.
bool opens(const std::string& sealed, const std::string& name, const std::string& plain) {
    try {
        require(sealing().unsealed_document(sealed, name) == plain, "what is read was sealed");
        return true;
    } catch (const qrtln::PackDamage& damage) {
        require(!damage.problem.empty(), "a refusal says why");
        return false;
    }
}

void runEdits(const std::string& edits) {
    static const std::string plain(40000, 'p');
    static const std::string original = sealing().sealed_document(plain, "packs/a");
    std::string sealed = original;
    for (std::size_t at = 0; at + 2 < edits.size(); at += 3) {
        const std::size_t where = static_cast<unsigned char>(edits[at]) * 256U +
                                  static_cast<unsigned char>(edits[at + 1]);
        if (edits[at + 2] == 0) {
            sealed.resize(std::min(where, sealed.size()));
        } else if (where < sealed.size()) {
            sealed[where] = static_cast<char>(sealed[where] ^ edits[at + 2]);
        }
    }
    require(opens(sealed, "packs/a", plain) == (sealed == original),
            "nothing but what was sealed is accepted, to the byte");
}

void runKey(const std::string& text) {
    const json document = json::parse(text, nullptr, false);
    std::string problem;
    const std::optional<qrtln::WrappedKey> key = qrtln::read_wrapped_key(
        document.is_object() ? qrtln::to_canonical(document) : text, problem);
    require(key.has_value() == problem.empty(), "a refusal says why");
    require(!key || !unwrap_key(*key, {false, std::string(32, 'k')}),
            "a key that nobody wrapped opens nothing");
}

} // namespace

void fuzz::runInput(std::string_view input) {
    const std::string rest(input.substr(std::min<std::size_t>(1, input.size())));
    switch (input.empty() ? '\0' : input[0]) {
    case 'm': {
        std::string text = expanded(rest);
        if (const std::size_t at = text.find("PACK"); at != std::string::npos) {
            text.replace(at, 4, storeWithPack().pack);
        }
        const json document = json::parse(text, nullptr, false);
        return runMap(compressed(document.is_object() ? qrtln::to_canonical(document) : text));
    }
    case 't':
        return runTable(expanded(rest));
    case 'p':
        return runPack(rest);
    case 'f':
        return runMap(rest);
    case 's':
        return runEdits(rest);
    case 'S':
        return require(!opens(rest, "packs/b", ""), "nothing was sealed by this name");
    case 'k':
        return runKey(expanded(rest));
    default:
        break;
    }
}
