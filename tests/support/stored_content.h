// Where the content of an item lies in a store, to damage it.
#pragma once

#include "client/sets/manifest.h"
#include "client/store/pack_folder.h"
#include "client/store/store.h"
#include "tests/support/files.h"

#include <algorithm>
#include <filesystem>
#include <string>

namespace qrtln::test {

struct ContentPlace {
    std::string file;
    std::size_t offset = 0;
    std::size_t stored_size = 0;
};

// Its whole object, or a frame of it in the newest of its packs.
inline ContentPlace content_place(const std::string& store, const ManifestItem& item) {
    namespace fs = std::filesystem;
    if (!is_in_blocks(item)) {
        std::string file = store + "/" + stored_path(FileKind::object, item.object);
        return {file, 0, fs::file_size(file)};
    }
    auto opened = open_directory_store(store, StoreAccess::read);
    ContentMap map = opened->packs().read_map(item.map, item.object);
    auto file = [&](const BlockRun& run) {
        return store + "/" + stored_path(FileKind::pack, map.packs[run.pack].id);
    };
    auto older = [&](const BlockRun& one, const BlockRun& other) {
        return fs::last_write_time(file(one)) < fs::last_write_time(file(other));
    };
    const BlockRun& run = *std::max_element(map.runs.begin(), map.runs.end(), older);
    auto pack = opened->packs().open_pack(map.packs[run.pack].id);
    const PackFrame& frame = *pack->table().frame_of(run.first);
    return {file(run), frame.offset, frame.stored_size};
}

// Changes a bit of it, or back.
inline void flip_content(const std::string& store, const ManifestItem& item) {
    const ContentPlace place = content_place(store, item);
    const auto time = std::filesystem::last_write_time(place.file);
    flip_a_bit(place.file, place.offset + place.stored_size / 2);
    std::filesystem::last_write_time(place.file, time); // the newest pack stays the newest
}

} // namespace qrtln::test
