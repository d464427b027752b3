#include "client/store/reader_locks.h"

#include "client/base/ownership.h"
#include "client/store/digest.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace qrtln {

std::int64_t reader_byte(const std::string& set) {
    constexpr int digits = 12;
    return static_cast<std::int64_t>(std::stoull(sha256_hex(set).substr(0, digits), nullptr, 16));
}

void ReaderLocks::open(int store, bool create) {
    m_file = FileDescriptor(::openat(
        store, readers_file,
        (create ? O_RDWR | O_CREAT : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (create && m_file)
        (void)give_to_owner_of(store, m_file.get());
}

bool ReaderLocks::share(const std::string& set) {
    return lock(set, F_RDLCK);
}

bool ReaderLocks::take(const std::string& set) {
    return lock(set, F_WRLCK);
}

bool ReaderLocks::lock(const std::string& set, short type) {
    if (!m_file)
        return true;
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = reader_byte(set);
    range.l_len = 1;
    // A file system without locks keeps nobody from anything, either.
    return ::fcntl(m_file.get(), F_OFD_SETLK, &range) == 0 || (errno != EAGAIN && errno != EACCES);
}

} // namespace qrtln
