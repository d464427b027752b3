#include "client/store/folder_lock.h"

#include "client/base/error.h"
#include "client/base/lock_holders.h"
#include "client/base/lock_reach.h"
#include "client/base/lock_wait.h"
#include "client/base/output.h"
#include "client/base/text.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace qrtln {

namespace {

constexpr std::size_t longest_note = 8192; // bytes

// "is locked by process 12 (…)", to stand behind the folder in words.
std::string locked_text(int file) {
    std::optional<ProcessNote> note = read_lock_note(file);
    const auto ended = [](pid_t process, pid_t child) {
        return fmt::format("is locked by process {}, which ended: its child{} still closes the "
                           "operation on the server",
                           process, child == 0 ? "" : fmt::format(", process {},", child));
    };
    for (const LockHolder& holder : lock_holders(file, LockKind::whole)) {
        if (holder.left_by != 0)
            return ended(holder.left_by, holder.process.process);
        // The note has since when, unless it is that of one before.
        bool noted =
            note && note->process == holder.process.process && liveness_of(*note) == Liveness::runs;
        return "is locked by " + describe(noted ? *note : holder.process);
    }
    if (note && liveness_of(*note) == Liveness::ended)
        return ended(note->process, 0);
    return "is locked by " + describe(note.value_or(ProcessNote{}));
}

std::string lock_path(int folder) {
    std::error_code error;
    const auto path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(folder), error);
    return (path / lock_file).string();
}

// What a killed process left is told. One of another host may only seem to have left it.
void take_over(int folder, const std::string& description, const ProcessNote& left) {
    const std::string who = describe(left, true);
    if (!is_of_this_system(left) && liveness_of(left) != Liveness::ended &&
        !locks_reach_every_host(folder))
        throw ClientError(
            ExitCode::locked,
            fmt::format("{} was last used by {}, which did not release it; whether it has ended "
                        "cannot be seen from here, as locks on this file system may hold for one "
                        "host alone",
                        description, who),
            "when it has ended for sure, empty the file " + for_terminal(lock_path(folder)) +
                ", and run the same command again");
    print_message(fmt::format("note: the lock of {} is taken over from {}, which ended without "
                              "releasing it",
                              description, who));
}

// It only helps others: a store that is full still locks. Another name of the file may be one that
// must not be written to.
void note_own_process(int file) {
    struct stat status {};
    if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink > 1)
        return;
    const std::string note = serialize(own_process());
    if (::ftruncate(file, 0) == 0)
        (void)!::pwrite(file, note.data(), note.size(), 0);
}

} // namespace

FolderLock::~FolderLock() {
    if (m_file)
        (void)!::ftruncate(m_file.get(), 0);
}

std::optional<ProcessNote> read_lock_note(int file) {
    std::string bytes(longest_note, '\0');
    ssize_t got = ::pread(file, bytes.data(), bytes.size(), 0);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return parse_process_note(bytes);
}

FolderLock lock_folder(int folder, const std::string& description,
                       const std::function<void(const std::string& doing, int error)>& fail) {
    FileDescriptor lock;
    for (;;) {
        // Without O_CLOEXEC: the module's process keeps it until it has ended, too.
        lock = FileDescriptor(::openat(folder, lock_file, O_RDWR | O_CREAT | O_NOFOLLOW, 0600));
        if (!lock)
            fail("open the lock file", errno);
        int error = 0;
        const auto take = [&] {
            error = ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
            return error != EWOULDBLOCK;
        };
        const auto refused = [&] {
            return fmt::format("{} {}", description, locked_text(lock.get()));
        };
        if (!wait_for_lock(take, refused))
            throw ClientError(ExitCode::locked, refused(), locked_hint);
        if (error != 0)
            fail("lock the lock file", error);
        // A run that created a store and failed removes the lock file: then this is the wrong one.
        struct stat locked {};
        struct stat named {};
        if (::fstat(lock.get(), &locked) != 0)
            fail("look at the lock file", errno);
        if (::fstatat(folder, lock_file, &named, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT)
                fail("look at the lock file", errno);
        } else if (locked.st_ino == named.st_ino && locked.st_dev == named.st_dev) {
            break;
        }
    }
    // Earlier releases note only a number, and leave it there.
    if (std::optional<ProcessNote> left = read_lock_note(lock.get()); left && !left->boot.empty())
        take_over(folder, description, *left);
    note_own_process(lock.get());
    return FolderLock(std::move(lock));
}

} // namespace qrtln
