#include "client/sets/item_content.h"

namespace qrtln {

ObjectCheck read_item(Store& store, const ManifestItem& item,
                      const std::function<void(Bytes)>& sink) {
    return is_in_blocks(item) ? store.read_content({item.object, item.map}, sink)
                              : store.read_object(item.object, sink);
}

} // namespace qrtln
