#include "client/sets/item_content.h"

namespace qrtln {

bool goes_into_blocks(const ManifestItem& item, std::uint64_t size) {
    constexpr std::uint64_t small_file = std::uint64_t{64} << 10;
    if (item.kind == ItemKind::database)
        return true;
    return (item.kind == ItemKind::file || item.kind == ItemKind::other) && size < small_file &&
           !is_attachment_object(item.path);
}

ObjectCheck read_item(Store& store, const ManifestItem& item,
                      const std::function<void(Bytes)>& sink) {
    return is_in_blocks(item) ? store.read_content({item.object, item.map}, sink)
                              : store.read_object(item.object, sink);
}

} // namespace qrtln
