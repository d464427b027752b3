#include "client/store/pack_table.h"

#include "client/store/canonical_json.h"
#include "client/store/number_list.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace qrtln {

namespace {

constexpr int pack_format = 1;
constexpr std::string_view magic = "QRTLNPAK";
constexpr std::uint32_t maximal_frame = 2 * blocks_per_frame * largest_block;
constexpr std::string_view frame_separators = "+:";  // "dead blocks before it + blocks : bytes"
constexpr std::string_view shorter_separators = ":"; // "block : size"

void put_number(std::string& text, std::uint64_t number) {
    for (int shift = 0; shift < 64; shift += 8)
        text += static_cast<char>(number >> shift & 0xFF);
}

std::uint64_t number_at(Bytes bytes, std::size_t at) {
    std::uint64_t number = 0;
    for (std::size_t i = sizeof number; i > 0; --i)
        number = number << 8 | std::to_integer<std::uint64_t>(bytes[at + i - 1]);
    return number;
}

} // namespace

const PackFrame* PackTable::frame_of(std::uint32_t block) const {
    auto behind = std::upper_bound(
        frames.begin(), frames.end(), block,
        [](std::uint32_t number, const PackFrame& frame) { return number < frame.first_block; });
    if (behind == frames.begin())
        return nullptr;
    const PackFrame& frame = *std::prev(behind);
    return block - frame.first_block < frame.blocks ? &frame : nullptr;
}

std::uint32_t PackTable::size_of(std::uint32_t block) const {
    auto found = std::lower_bound(shorter.begin(), shorter.end(), std::pair(block, 0U));
    return found != shorter.end() && found->first == block ? found->second : block_size;
}

std::uint64_t PackTable::plain_size_of(std::uint32_t first_block, std::uint32_t count) const {
    std::uint64_t size = std::uint64_t{count} * block_size;
    for (auto one = std::lower_bound(shorter.begin(), shorter.end(), std::pair(first_block, 0U));
         one != shorter.end() && one->first - first_block < count; ++one)
        size -= block_size - one->second;
    return size;
}

std::uint64_t PackTable::present_blocks() const {
    std::uint64_t present = 0;
    for (const PackFrame& frame : frames)
        present += frame.blocks;
    return present;
}

std::string serialize(const PackTrailer& trailer) {
    std::string text;
    put_number(text, trailer.table_at);
    put_number(text, trailer.table_size);
    put_number(text, trailer.blocks);
    text += text_of(trailer.table_hash);
    text += magic;
    return text;
}

PackTrailer parse_pack_trailer(Bytes bytes, std::uint64_t file_size) {
    constexpr std::size_t hash_at = 3 * sizeof(std::uint64_t);
    constexpr std::size_t magic_at = hash_at + sizeof(BlockHash);
    static_assert(magic_at + magic.size() == PackTrailer::size);
    if (bytes.size() != PackTrailer::size || file_size < PackTrailer::size)
        throw PackDamage{"ends too early"};
    PackTrailer trailer{number_at(bytes, 0), number_at(bytes, 8), number_at(bytes, 16)};
    std::memcpy(trailer.table_hash.data(), bytes.data() + hash_at, sizeof(BlockHash));
    std::uint64_t before = file_size - PackTrailer::size;
    bool fits = trailer.blocks <= std::numeric_limits<std::uint32_t>::max() &&
                trailer.table_at <= before && trailer.table_size <= before - trailer.table_at &&
                trailer.blocks * sizeof(ShortHash) == before - trailer.hashes_at();
    if (std::memcmp(bytes.data() + magic_at, magic.data(), magic.size()) != 0 || !fits)
        throw PackDamage{"does not end as every pack does"};
    return trailer;
}

std::string serialize(const PackTable& table) {
    std::string frames;
    std::uint32_t next = 0;
    for (const PackFrame& frame : table.frames) {
        add_numbers<3>(frames, frame_separators,
                       {frame.first_block - next, frame.blocks, frame.stored_size});
        next = frame.first_block + frame.blocks;
    }
    std::string shorter;
    for (const auto& [block, size] : table.shorter)
        add_numbers<2>(shorter, shorter_separators, {block, size});
    return to_canonical({{"format", pack_format},
                         {"block_size", table.block_size},
                         {"blocks", table.blocks},
                         {"frames", frames},
                         {"shorter", shorter}});
}

namespace {

bool read_frames(PackTable& table, const std::string& text, std::uint64_t frames_end) {
    std::uint64_t offset = 0;
    std::uint64_t next = 0;
    auto add = [&](const std::array<std::uint64_t, 3>& numbers) {
        auto [dead, count, stored] = numbers;
        if (stored == 0 || stored > maximal_frame || dead > table.blocks || count == 0 ||
            count > blocks_per_frame || next + dead + count > table.blocks)
            return false;
        table.frames.push_back({offset, static_cast<std::uint32_t>(stored),
                                static_cast<std::uint32_t>(next + dead),
                                static_cast<std::uint32_t>(count)});
        offset += stored;
        next += dead + count;
        return true;
    };
    return read_numbers<3>(text, frame_separators, add) && offset == frames_end;
}

bool read_shorter(PackTable& table, const std::string& text) {
    return read_numbers<2>(text, shorter_separators, [&](const auto& numbers) {
        auto [block, size] = numbers;
        bool ascends = table.shorter.empty() || block > table.shorter.back().first;
        table.shorter.emplace_back(static_cast<std::uint32_t>(block),
                                   static_cast<std::uint32_t>(size));
        return ascends && block < table.blocks && size > 0 && size < table.block_size;
    });
}

} // namespace

PackTable parse_pack_table(const std::string& text, const PackTrailer& trailer) {
    std::string problem;
    PackTable table;
    bool good = false;
    try {
        std::optional<nlohmann::json> document = from_canonical(text, problem);
        good = document && document->at("format") == pack_format &&
               document->at("blocks") == trailer.blocks &&
               document->at("block_size").is_number_unsigned() &&
               is_block_size(document->at("block_size").get<std::uint64_t>());
        if (good) {
            table.block_size = document->at("block_size").get<std::uint32_t>();
            table.blocks = static_cast<std::uint32_t>(trailer.blocks);
            good = read_frames(table, document->at("frames").get_ref<const std::string&>(),
                               trailer.table_at) &&
                   read_shorter(table, document->at("shorter").get_ref<const std::string&>());
        }
    } catch (const nlohmann::json::exception&) {
        good = false;
    }
    if (!good)
        throw PackDamage{"has a table that is not in its form"};
    return table;
}

} // namespace qrtln
