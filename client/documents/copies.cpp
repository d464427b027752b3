#include "client/documents/copies.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/restore/object_content.h"
#include "client/restore/safe_file.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

constexpr std::size_t copy_step = std::size_t{64} << 20;

// Both files are this run's own. The kernel shares the blocks where the file system can.
void copy_file(const std::string& from, const std::string& to, const std::string& data_directory) {
    FileDescriptor source(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!source)
        fail_file("open", from, errno);
    FileDescriptor target(
        ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!target)
        fail_file("create", to, errno);
    if (int error = give_to_server_user(target.get(), data_directory); error != 0)
        fail_file("set the owner of", to, error);
    for (ssize_t copied = 1; copied > 0;) {
        throw_if_interrupted();
        copied = ::copy_file_range(source.get(), nullptr, target.get(), nullptr, copy_step, 0);
        if (copied < 0)
            fail_file("copy to", to, errno);
    }
    if (int error = target.close_checked(); error != 0)
        fail_file("copy to", to, error);
}

void move_file(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0)
        fail_file("move to", to, errno);
}

void remove_file(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        fail_file("remove", path, errno);
}

} // namespace

void fail_file(const std::string& doing, const std::string& path, int error) {
    throw ClientError(ExitCode::failed, fmt::format("cannot {} {}: {}", doing, for_terminal(path),
                                                    system_error_text(error)));
}

void DocumentCopies::make(std::uint64_t room) {
    m_temporary.emplace(absolute_path(m_context.tmp_dir), m_context.ini.data_directory);
    RoomCount count;
    count.at(m_temporary->path()).needed += room;
    require_room(count.list());
    for (const char* name : {module_folder, set_folder, live_folder, original_folder})
        if (::mkdir(folder(name).c_str(), 0700) != 0 ||
            give_folder_to_server_user(folder(name), m_context.ini.data_directory) != 0)
            fail_file("create", folder(name), errno);
}

void DocumentCopies::extract() {
    std::string problem;
    SafeFolder root(folder(set_folder));
    FileDescriptor at = root.open_folder("", problem);
    if (!at)
        throw ClientError(ExitCode::failed, problem);
    SafeFile copy(std::move(at), name_of(m_item.path));
    WrittenContent written;
    problem = copy.create();
    if (int error = give_to_server_user(copy.descriptor(), m_context.ini.data_directory);
        problem.empty() && error != 0)
        problem = system_error_text(error);
    if (problem.empty()) {
        Progress progress(1);
        progress.next_database();
        written = write_content(m_context.store, m_item, copy, [&](std::uint64_t bytes) {
            throw_if_interrupted();
            progress.add_bytes(bytes);
        });
        problem = written.problem;
    }
    if (!written.damage.empty())
        throw ClientError(ExitCode::damage_found,
                          fmt::format("the copy of {} is damaged in the store: {}",
                                      for_terminal(m_item.path), for_terminal(written.damage)),
                          "nothing was done; `qrtln verify` tells more, an older set (--at) may "
                          "have a whole copy");
    if (problem.empty())
        problem = copy.commit(nullptr, false);
    if (!problem.empty())
        throw ClientError(ExitCode::failed, fmt::format("cannot write the set's copy of {}: {}",
                                                        for_terminal(m_item.path), problem));
}

std::string DocumentCopies::file(const char* name) const {
    return folder(name) + "/" + name_of(m_item.path);
}

void DocumentCopies::renew_original(const std::string& from) {
    remove_file(original());
    copy_file(from, original(), m_context.ini.data_directory);
}

void DocumentCopies::keep_original_as_set_copy() {
    move_file(original(), set_copy());
}

void DocumentCopies::place_set_copy(const std::string& place, bool keep) {
    if (!keep)
        move_file(set_copy(), place);
    // The module removes its own name of the copy.
    else if (::link(set_copy().c_str(), place.c_str()) != 0)
        copy_file(set_copy(), place, m_context.ini.data_directory);
}

void DocumentCopies::take_set_copy_back(const std::string& place, bool keep) {
    if (keep && exists(place))
        move_file(place, set_copy());
    else
        ::unlink(place.c_str()); // in the private folder, which goes at the end
}

} // namespace qrtln
