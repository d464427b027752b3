#include "client/store/stored_file.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/permission.h"
#include "client/store/mirror.h"
#include "client/store/sealing.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

void read_at(int file, std::uint64_t offset, std::span<std::byte> buffer) {
    while (!buffer.empty()) {
        ssize_t got = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw PackDamage{"cannot be read: " + system_error_text(errno)};
        if (got == 0)
            throw PackDamage{"ends too early"};
        offset += static_cast<std::uint64_t>(got);
        buffer = buffer.subspan(static_cast<std::size_t>(got));
    }
}

// As it lies, sealed or not.
StoredFile open_as_it_lies(const StorePlace& place, int folder, const std::string& path) {
    Mirror* mirror = place.mirror();
    if (mirror != nullptr && !mirror->size_of(path))
        throw PackDamage{"is missing"};
    // Relative to the open folder.
    const std::string name = name_in_folder(path);
    auto file = std::make_shared<FileDescriptor>();
    struct stat status {};
    int error = folder < 0 ? ENOENT : 0;
    if (error == 0) {
        *file = FileDescriptor(
            ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!*file || ::fstat(file->get(), &status) != 0)
            error = errno;
    }
    if (error == ENOENT && mirror != nullptr)
        return mirror->open(path);
    if (error != 0) {
        throw_if_no_permission("read", place.path(path), error);
        place.require_there();
        throw PackDamage{error == ENOENT ? "is missing"
                                         : "cannot be opened: " + system_error_text(error)};
    }
    if (!S_ISREG(status.st_mode))
        throw PackDamage{"is no file"};
    return stored_file(std::move(file));
}

} // namespace

StoredFile stored_file(std::shared_ptr<FileDescriptor> file) {
    struct stat status {};
    if (::fstat(file->get(), &status) != 0)
        throw PackDamage{"cannot be looked at: " + system_error_text(errno)};
    return {static_cast<std::uint64_t>(status.st_size),
            [file = std::move(file)](std::uint64_t offset, std::span<std::byte> buffer) {
                read_at(file->get(), offset, buffer);
            }};
}

StoredFile open_stored_file(const StorePlace& place, int folder, FileKind kind,
                            const std::string& id) {
    StoredFile file = open_as_it_lies(place, folder, place.path_of(kind, id));
    return place.sealing() != nullptr
               ? place.sealing()->unsealed(std::move(file), stored_path(kind, id))
               : file;
}

} // namespace qrtln
