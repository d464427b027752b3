#include "client/store/content_map.h"

#include "client/store/block_hash.h"
#include "client/store/canonical_json.h"
#include "client/store/compression.h"
#include "client/store/digest.h"
#include "client/store/number_list.h"

#include <algorithm>
#include <limits>

namespace qrtln {

namespace {

constexpr int map_format = 1;
constexpr std::size_t most_packs = 32;
constexpr std::size_t maximal_map = std::size_t{512} << 20;
constexpr std::string_view run_separators = ":+"; // "pack : first block + blocks"

// Whether the runs are such that packs can have them, and make up the content.
bool adds_up(const ContentMap& map) {
    std::uint64_t blocks = 0;
    for (const BlockRun& run : map.runs) {
        std::uint64_t behind = std::uint64_t{run.first} + run.blocks;
        if (run.pack >= map.packs.size() || run.blocks == 0 ||
            behind > std::numeric_limits<std::uint32_t>::max())
            return false;
        blocks += run.blocks;
    }
    return blocks == map.blocks() &&
           std::all_of(map.packs.begin(), map.packs.end(),
                       [](const UsedPack& pack) { return is_sha256_hex(pack.id); });
}

bool read_map(const nlohmann::json& document, ContentMap& map) {
    map.name = document.at("name").get<std::string>();
    map.block_size = block_size_of(map.name);
    if (document.at("format") != map_format || map.block_size == 0 ||
        !document.at("size").is_number_unsigned())
        return false;
    map.size = document.at("size").get<std::uint64_t>();
    for (const nlohmann::json& pack :
         document.at("packs").get_ref<const nlohmann::json::array_t&>()) {
        if (!pack.at("own_blocks").is_number_unsigned())
            return false;
        map.packs.push_back(
            {pack.at("id").get<std::string>(), pack.at("own_blocks").get<std::uint64_t>()});
    }
    auto add = [&](const std::array<std::uint64_t, 3>& numbers) {
        for (std::uint64_t number : numbers)
            if (number > std::numeric_limits<std::uint32_t>::max())
                return false;
        map.runs.push_back({static_cast<std::uint32_t>(numbers[0]),
                            static_cast<std::uint32_t>(numbers[1]),
                            static_cast<std::uint32_t>(numbers[2])});
        return true;
    };
    return read_numbers<3>(document.at("runs").get_ref<const std::string&>(), run_separators, add);
}

} // namespace

bool ContentMap::is_scattered() const {
    std::uint64_t stored = 0;
    for (const UsedPack& pack : packs)
        stored += pack.own_blocks;
    return packs.size() >= most_packs || stored / 2 > blocks();
}

void ContentMap::add(std::uint32_t pack, std::uint32_t block) {
    if (!runs.empty() && runs.back().pack == pack &&
        runs.back().first + runs.back().blocks == block)
        ++runs.back().blocks;
    else
        runs.push_back({pack, block, 1});
}

std::string serialize(const ContentMap& map) {
    nlohmann::json packs = nlohmann::json::array();
    for (const UsedPack& pack : map.packs)
        packs.push_back({{"id", pack.id}, {"own_blocks", pack.own_blocks}});
    std::string runs;
    for (const BlockRun& run : map.runs)
        add_numbers<3>(runs, run_separators, {run.pack, run.first, run.blocks});
    std::string text = to_canonical({{"format", map_format},
                                     {"name", map.name},
                                     {"size", map.size},
                                     {"packs", packs},
                                     {"runs", runs}});
    FrameCompressor compressor(usual_compression);
    Bytes frame = compressor.compress(as_bytes(text));
    return {reinterpret_cast<const char*>(frame.data()), frame.size()};
}

std::optional<ContentMap> parse_content_map(Bytes frame, std::string& problem) {
    std::optional<std::size_t> size = plain_size(frame, maximal_map);
    if (!size) {
        problem = "is no frame";
        return std::nullopt;
    }
    std::string text(*size, '\0');
    problem = FrameDecompressor().decompress(frame, std::as_writable_bytes(std::span(text)));
    std::optional<nlohmann::json> document;
    if (problem.empty())
        document = from_canonical(text, problem);
    if (!document)
        return std::nullopt;
    try {
        ContentMap map;
        if (read_map(*document, map) && adds_up(map))
            return map;
    } catch (const nlohmann::json::exception&) { // a field is missing, or of another type
    }
    problem = "is not in its form";
    return std::nullopt;
}

} // namespace qrtln
