#include "client/base/file_descriptor.h"

#include <cerrno>
#include <unistd.h>

namespace qrtln {

void FileDescriptor::reset() {
    if (m_fd >= 0)
        ::close(m_fd); // the file was only read, or its failure is already being reported
    m_fd = -1;
}

int FileDescriptor::close_checked() {
    int fd = std::exchange(m_fd, -1);
    return fd >= 0 && ::close(fd) != 0 && errno != EINTR ? errno : 0;
}

} // namespace qrtln
