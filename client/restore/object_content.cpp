#include "client/restore/object_content.h"

#include "client/base/file_io.h"
#include "client/restore/safe_file.h"
#include "client/sets/item_content.h"
#include "client/sets/manifest.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

// Ends the reading of an object whose bytes have nowhere to go.
struct WriteFailed {
    std::string problem;
};

// Ends the reading of one that is longer than the set tells: room was made for no more.
struct LongerThanTold {};

} // namespace

WrittenContent read_content(Store& store, const ManifestItem& item,
                            const std::function<std::string(Bytes bytes)>& write) {
    WrittenContent written;
    ObjectCheck check;
    std::uint64_t read = 0;
    try {
        check = read_item(store, item, [&](Bytes bytes) {
            read += bytes.size();
            if (read > item.size)
                throw LongerThanTold{};
            if (std::string failed = write(bytes); !failed.empty())
                throw WriteFailed{failed};
        });
    } catch (const WriteFailed& failed) {
        written.problem = failed.problem;
        return written;
    } catch (const LongerThanTold&) {
        check = {fmt::format("is longer than the {} bytes of the set", item.size), item.size};
    }
    if (check.problem.empty() && check.size != item.size)
        check.problem = fmt::format("has {} bytes, not the {} of the set", check.size, item.size);
    if (check.problem.empty())
        written.bytes = check.size;
    else
        written.damage = fmt::format("its object {} {}", item.object, check.problem);
    return written;
}

WrittenContent write_content(Store& store, const ManifestItem& item, SafeFile& file,
                             const std::function<void(std::uint64_t bytes)>& on_block) {
    return read_content(store, item, [&](Bytes bytes) {
        on_block(bytes.size());
        return file.write(bytes);
    });
}

} // namespace qrtln
