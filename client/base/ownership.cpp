#include "client/base/ownership.h"

#include "client/base/file_descriptor.h"
#include "client/base/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

std::string user_text(uid_t user) {
    const passwd* entry = ::getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

int give_to_owner_of(int above, int file) {
    struct stat owner {};
    struct stat status {};
    if (::geteuid() != 0)
        return 0;
    if (::fstat(above, &owner) != 0 || ::fstat(file, &status) != 0)
        return errno;
    // Another name of it may be a file that the owner of the folder must not have.
    bool roots_alone = status.st_uid == 0 && (S_ISDIR(status.st_mode) || status.st_nlink == 1);
    if (owner.st_uid == 0 || !roots_alone)
        return 0;
    return ::fchown(file, owner.st_uid, owner.st_gid) == 0 ? 0 : errno;
}

int make_folder(int parent, const std::string& name, int owner) {
    if (::mkdirat(parent, name.c_str(), 0700) != 0)
        return errno == EEXIST ? 0 : errno;
    FileDescriptor made(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made)
        return errno;
    (void)give_to_owner_of(owner, made.get()); // the run was warned
    return 0;
}

int give_to_owner_of_folder(const std::string& path) {
    if (::geteuid() != 0)
        return 0;
    FileDescriptor folder(::open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return folder && file ? give_to_owner_of(folder.get(), file.get()) : errno;
}

} // namespace qrtln
