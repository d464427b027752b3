// The content of an item of a set, however the store has it.
#pragma once

#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>

namespace qrtln {

// Whether a content of this size is stored in blocks: databases change here and there, and of small
// files many share a pack. The others are whole objects, as is what sets share by its hash.
bool goes_into_blocks(const ManifestItem& item, std::uint64_t size);

// Reads it into `sink` and checks it, as the functions of the Store do.
ObjectCheck read_item(Store& store, const ManifestItem& item,
                      const std::function<void(Bytes)>& sink);

} // namespace qrtln
