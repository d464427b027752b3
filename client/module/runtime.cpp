#include "client/module/runtime.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/sets/index_guard.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>

namespace qrtln {

ModuleRuntime::ModuleRuntime(const std::string& folder, const std::string& tmp_dir,
                             const std::string& data_directory)
    : m_folder(folder), m_data_directory(data_directory) {
    if (server_user(data_directory))
        m_copy.emplace(absolute_path(tmp_dir), data_directory);
}

void ModuleRuntime::lend_index() const {
    if (!m_copy)
        return;
    const std::string index = m_folder + index_name;
    // It may be a symbolic link; one that leads nowhere is an index that is missing.
    std::optional<std::string> content =
        read_small_file(AT_FDCWD, real_path(index).value_or(index), maximal_index);
    if (!content && errno == ENOENT)
        return;
    int error = content ? 0 : errno;
    throw_if_no_permission("read the index of databases", index, error);
    FileDescriptor copy(content ? ::open((path() + index_name).c_str(),
                                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)
                                : -1);
    if (error == 0 && !copy)
        error = errno;
    if (error == 0)
        error = write_all(copy.get(), as_bytes(*content));
    if (error == 0)
        error = give_to_server_user(copy.get(), m_data_directory);
    if (int close_error = copy ? copy.close_checked() : 0; error == 0)
        error = close_error;
    if (error != 0) // half an index would be one that lost entries
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot copy the index of databases {} to {}: {}",
                                      for_terminal(index), for_terminal(path()),
                                      system_error_text(error)));
}

} // namespace qrtln
