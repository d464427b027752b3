#include "client/store/state_folder.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

namespace {

constexpr std::string_view unfinished_proof_suffix = ".proof.tmp";

[[noreturn]] void fail_state(const std::string& directory, const std::string& why,
                             const std::string& hint = {}) {
    throw ClientError(
        ExitCode::failed,
        fmt::format("cannot use the folder {} of --state: {}", for_terminal(directory), why), hint);
}

std::vector<std::string> names_in(const std::string& directory) {
    std::optional<std::vector<std::string>> names = names_in_folder(directory);
    if (!names)
        fail_state(directory, system_error_text(errno));
    return std::move(*names);
}

// An earlier run made both; what else is there since then, as below a folder for temporary files,
// does no harm. A store has them, too.
void require_new_or_ours(const std::string& given, const std::string& directory) {
    std::vector<std::string> names = names_in(directory);
    bool ours = exists(fmt::format("{}/{}", directory, lock_file)) &&
                exists(directory + "/runtime") && !exists(directory + "/store.json");
    std::erase_if(names, [](const std::string& name) { // of one that is being made
        return name == lock_file || name == "runtime";
    });
    if (!ours && !names.empty())
        fail_state(given,
                   fmt::format("it is not empty, and '{}' is no state", for_terminal(names[0])),
                   "name a new or empty folder, or the one of an earlier run");
}

void remove_leftovers(const std::string& directory) {
    for (const std::string& name : names_in(directory))
        if (name.ends_with(unfinished_proof_suffix))
            ::unlink((fmt::format("{}/{}", directory, name)).c_str());
    for (const std::string& name : names_in(directory + "/runtime"))
        if (is_unfinished(name))
            ::unlink((fmt::format("{}/runtime/{}", directory, name)).c_str());
}

} // namespace

bool is_unfinished(std::string_view name) {
    constexpr std::string_view replacement = ".new";
    if (name.ends_with(temporary_suffix))
        return true;
    if (name.ends_with(replacement))
        name.remove_suffix(replacement.size());
    std::size_t dot = name.rfind('.');
    return dot != std::string_view::npos && dot + 1 < name.size() &&
           name.find_first_not_of("0123456789", dot + 1) == std::string_view::npos;
}

StateFolder::StateFolder(const StateRequest& request) {
    std::string given = absolute_path(request.directory);
    std::optional<std::string> real = real_path_of_new(given);
    if (int error = real ? 0 : errno; error != 0)
        fail_state(given, system_error_text(error),
                   error == ENOENT ? "create the folder above it first" : "");
    m_directory = *real;
    for (const auto& [other, what] : {std::pair{request.store, "the store"},
                                      std::pair{request.data_directory, "the data directory"}})
        if (lies_in(m_directory, other))
            fail_state(given, std::string("it is inside ") + what,
                       "name a folder elsewhere with --state");
    if (!request.writes && !exists(m_directory))
        return;
    if (request.writes && ::mkdir(m_directory.c_str(), 0700) != 0 && errno != EEXIST)
        fail_state(given, system_error_text(errno));
    require_new_or_ours(given, m_directory);
    if (!request.writes)
        return;
    auto fail = [&](const std::string& doing, int error) {
        fail_state(given, fmt::format("cannot {}: {}", doing, system_error_text(error)));
    };
    FileDescriptor folder(::open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        fail("open it", errno);
    m_lock = lock_folder(folder.get(), fmt::format("the folder {} of --state", for_terminal(given)),
                         fail);
    if (::mkdirat(folder.get(), "runtime", 0700) != 0 && errno != EEXIST)
        fail("create the folder runtime", errno);
    // What a run leaves unfinished on the server is only known from here.
    int error = flush_folder(folder.get());
    if (error == 0)
        error = flush_directory(AT_FDCWD, folder_of(m_directory));
    if (error != 0 && error != EACCES)
        fail("flush it", error);
    remove_leftovers(m_directory);
}

} // namespace qrtln
