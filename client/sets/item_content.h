// The content of an item of a set, however the store has it.
#pragma once

#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <functional>

namespace qrtln {

// Reads it into `sink` and checks it, as the functions of the Store do.
ObjectCheck read_item(Store& store, const ManifestItem& item,
                      const std::function<void(Bytes)>& sink);

} // namespace qrtln
