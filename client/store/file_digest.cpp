#include "client/store/file_digest.h"

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/store/block_hash.h"
#include "client/store/digest.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// Gives the file from where it stands to `take`; false when it cannot be read to its end.
bool read_descriptor(int file, const std::function<void()>& between,
                     const std::function<void(Bytes)>& take) {
    std::vector<std::byte> buffer(read_size);
    for (;;) {
        if (between)
            between();
        ssize_t got = read_up_to(file, buffer);
        if (got <= 0)
            return got == 0;
        take({buffer.data(), static_cast<std::size_t>(got)});
    }
}

// Empty when it cannot be read.
std::string descriptor_digest(int file, const std::function<void()>& between) {
    Sha256 digest;
    bool read = read_descriptor(file, between, [&](Bytes bytes) { digest.update(bytes); });
    return read ? digest.finish() : std::string();
}

std::string descriptor_name(int file, std::uint32_t block_size,
                            const std::function<void()>& between) {
    static_assert(read_size % largest_block == 0);
    ContentName name(block_size);
    BlockHasher hasher;
    bool read = read_descriptor(file, between, [&](Bytes bytes) {
        for (; !bytes.empty();
             bytes = bytes.subspan(std::min<std::size_t>(block_size, bytes.size())))
            name.add(hasher(bytes.first(std::min<std::size_t>(block_size, bytes.size()))));
    });
    return read ? name.finish() : std::string();
}

FileDescriptor open_regular(const std::string& path) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    bool regular = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    return regular ? std::move(file) : FileDescriptor();
}

} // namespace

std::string file_digest(const std::string& path, const std::function<void()>& between) {
    FileDescriptor file = open_regular(path);
    return file ? descriptor_digest(file.get(), between) : std::string();
}

bool file_has_content(const std::string& path, const std::string& object,
                      const std::function<void()>& between) {
    FileDescriptor file = open_regular(path);
    return file && descriptor_has_content(file.get(), object, between);
}

bool descriptor_has_content(int file, const std::string& object,
                            const std::function<void()>& between) {
    if (object.empty())
        return false;
    std::uint32_t block_size = block_size_of(object);
    return object == (block_size != 0 ? descriptor_name(file, block_size, between)
                                      : descriptor_digest(file, between));
}

} // namespace qrtln
