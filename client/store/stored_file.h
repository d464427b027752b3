// A file of a store, opened for reading wherever it lies.
#pragma once

#include "client/base/file_io.h"
#include "client/store/pack_table.h"
#include "client/store/store_place.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qrtln {

struct StoredFile {
    std::uint64_t size = 0;
    // Fills the buffer from an offset on; on any thread. Throws PackDamage.
    std::function<void(std::uint64_t offset, std::span<std::byte> buffer)> read;
};

class FileDescriptor;
// An open file, which stays open as long as this is there.
StoredFile stored_file(std::shared_ptr<FileDescriptor> file);

// Opens the file of an id, which lies in this open folder of its kind; none is below 0. Throws
// PackDamage: "is missing", "is no file" and others; ClientError(no_permission), and others where
// the store is not to be reached.
StoredFile open_stored_file(const StorePlace& place, int folder, FileKind kind,
                            const std::string& id);

} // namespace qrtln
