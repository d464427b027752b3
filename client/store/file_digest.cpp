#include "client/store/file_digest.h"

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/store/digest.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// Of the file from where it stands; empty when it cannot be read.
std::string descriptor_digest(int file, const std::function<void()>& between) {
    Sha256 digest;
    std::vector<std::byte> buffer(read_size);
    for (;;) {
        if (between)
            between();
        ssize_t got = read_up_to(file, buffer);
        if (got < 0)
            return {};
        if (got == 0)
            return digest.finish();
        digest.update({buffer.data(), static_cast<std::size_t>(got)});
    }
}

} // namespace

std::string file_digest(const std::string& path, const std::function<void()>& between) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    bool regular = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    return regular ? descriptor_digest(file.get(), between) : std::string();
}

bool file_has_content(const std::string& path, const std::string& object,
                      const std::function<void()>& between) {
    return !object.empty() && file_digest(path, between) == object;
}

bool descriptor_has_content(int file, const std::string& object,
                            const std::function<void()>& between) {
    return !object.empty() && descriptor_digest(file, between) == object;
}

} // namespace qrtln
