#include "client/domino/server_lock.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/lock_holders.h"
#include "client/base/lock_wait.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int lock_format = 1;
constexpr std::size_t maximal_lock_note = 65536;

std::string note_path(const NotesIni& ini) {
    return ini.data_directory + "/" + log_archive_file;
}

// Whether two paths lead to one folder, by whatever mounts.
bool is_same_folder(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// "process 12 (COMMAND, …)"; empty where nobody has the folder locked, or the system does not tell.
std::string holder_of(int folder) {
    for (const LockHolder& holder : lock_holders(folder, LockKind::whole))
        return describe(holder.process) +
               (holder.left_by != 0 ? fmt::format(", left by process {}", holder.left_by) : "");
    return {};
}

} // namespace

const char* const log_archive_file = "qrtln_archive.json";

FileDescriptor lock_server(const NotesIni& ini) {
    const std::string& directory = ini.data_directory;
    // Without O_CLOEXEC: the module's process keeps it until it has ended, also when the client is
    // killed.
    FileDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
    int error = folder ? 0 : errno;
    const auto take = [&] {
        if (folder)
            error = ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
        return error != EWOULDBLOCK;
    };
    const auto refused = [&] {
        std::string holder = holder_of(folder.get());
        return fmt::format("another run backs up databases of the server {}{}",
                           for_terminal(directory), holder.empty() ? "" : ": " + holder);
    };
    if (!wait_for_lock(take, refused))
        throw ClientError(ExitCode::locked, refused(), locked_hint);
    if (error == 0)
        return folder;
    print_message(fmt::format("warning: the data directory {} cannot be locked: {}: see that no "
                              "two runs of qrtln back up this server at once",
                              for_terminal(directory), system_error_text(error)));
    return {};
}

std::string run_that_locks(const NotesIni& ini) {
    FileDescriptor folder(::open(ini.data_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? holder_of(folder.get()) : "";
}

std::string other_log_archive(const NotesIni& ini, const Store& store) {
    std::optional<std::string> bytes = read_small_file(AT_FDCWD, note_path(ini), maximal_lock_note);
    if (!bytes && errno == ENOENT)
        return {};
    std::string problem = bytes ? "" : system_error_text(errno);
    try {
        std::optional<json> note = bytes ? from_canonical(*bytes, problem) : std::nullopt;
        if (note && note->at("format").get<int>() == lock_format) {
            std::string place = get_bytes(*note, "store");
            std::string id = note->at("store_id").get<std::string>();
            bool same_place = place == store.address() || is_same_folder(place, store.location());
            bool other_id = !id.empty() && !store.id().empty() && id != store.id();
            if (same_place && other_id)
                return fmt::format(
                    "the store that archives the transaction logs of this server was at this "
                    "place, {}, but is another one: perhaps its disk is not mounted",
                    for_terminal(place));
            // One that was moved is still the same; a copy beside it is not.
            bool moved = !id.empty() && id == store.id() && store_id_at(place) != id;
            if (moved || same_place)
                return {};
            return fmt::format("the store {} archives the transaction logs of this server: with "
                               "some of them elsewhere its chain would be torn",
                               for_terminal(place));
        }
    } catch (const json::exception&) {
        problem = "is not in its form";
    }
    throw ClientError(
        ExitCode::failed,
        fmt::format(
            "the note of the store that archives the transaction logs, {}, cannot be read: {}",
            for_terminal(note_path(ini)), problem),
        "if it is this store, say --take-over");
}

std::string note_log_archive(const NotesIni& ini, const Store& store) {
    json note = {
        {"format", lock_format}, {"store_id", store.id()}, {"since", utc_time(std::time(nullptr))}};
    put_bytes(note, "store", store.address());
    std::string bytes = to_canonical(note);
    int error = replace_file(note_path(ini), bytes);
    return error == 0 ? ""
                      : fmt::format("cannot write {}: {}", for_terminal(note_path(ini)),
                                    system_error_text(error));
}

} // namespace qrtln
