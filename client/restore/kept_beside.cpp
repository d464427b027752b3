#include "client/restore/kept_beside.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/restore/safe_file.h"
#include "client/sets/manifest.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

namespace {

// The file's own name and time, and a number where several are kept within a second.
std::string free_name(int folder, const std::string& name) {
    const std::string base =
        fmt::format("{}.replaced-{}", name, utc_time_compact(std::time(nullptr)));
    std::string candidate = base;
    struct stat status {};
    for (unsigned number = 2;
         ::fstatat(folder, candidate.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0; ++number)
        candidate = base + "-" + std::to_string(number);
    return candidate;
}

std::string copy_content(int from, off_t size, SafeFile& to,
                         const std::function<bool()>& interrupted) {
    std::vector<std::byte> buffer(read_size);
    off_t copied = 0;
    for (;;) {
        if (interrupted())
            return "interrupted";
        ssize_t got = read_up_to(from, buffer);
        if (got < 0)
            return "cannot read it: " + system_error_text(static_cast<int>(-got));
        if (got == 0)
            return copied == size ? "" : "its size changed while it was read";
        copied += got;
        if (std::string problem = to.write({buffer.data(), static_cast<std::size_t>(got)});
            !problem.empty())
            return problem;
    }
}

} // namespace

KeptFile keep_beside(const std::string& root, const std::string& target,
                     const std::function<bool()>& interrupted) {
    KeptFile kept;
    SafeFolder safe(root);
    std::string relative = path_below(target, root);
    FileDescriptor file = safe.open_file(relative, kept.problem);
    std::size_t slash = relative.rfind('/');
    FileDescriptor folder;
    if (file)
        folder = safe.open_folder(slash == std::string::npos ? "" : relative.substr(0, slash),
                                  kept.problem);
    struct stat status {};
    if (!folder || ::fstat(file.get(), &status) != 0) {
        if (kept.problem.empty())
            kept.problem = system_error_text(errno);
        return kept;
    }
    remove_parts_of_killed_runs(folder.get());
    ManifestItem metadata;
    metadata.has_metadata = true;
    metadata.mode = status.st_mode & 07777;
    metadata.uid = status.st_uid;
    metadata.gid = status.st_gid;
    metadata.mtime_ns = modification_time_ns(status);
    std::string name = free_name(folder.get(), name_of(target));
    SafeFile copy(std::move(folder), name);
    kept.problem = copy.create();
    if (kept.problem.empty())
        kept.problem = copy_content(file.get(), status.st_size, copy, interrupted);
    if (kept.problem.empty())
        kept.problem = copy.commit(&metadata, false);
    if (kept.problem.empty())
        kept.path = (folder_of(target) == "/" ? "" : folder_of(target)) + "/" + name;
    return kept;
}

} // namespace qrtln
