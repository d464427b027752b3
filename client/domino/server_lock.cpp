#include "client/domino/server_lock.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

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

// The command line of a process, for a person; empty where it cannot be read.
std::string command_of(const std::string& process) {
    std::ifstream file(fmt::format("/proc/{}/cmdline", process), std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    while (!text.empty() && text.back() == '\0')
        text.pop_back();
    std::replace(text.begin(), text.end(), '\0', ' ');
    return for_terminal(text);
}

// Who has a file locked, as the kernel tells (see proc_locks(5)): "process 12 (COMMAND)"; empty
// where it does not.
std::string holder_of(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        return {};
    char place[64];
    std::snprintf(place, sizeof place, "%02x:%02x:%ju", major(status.st_dev), minor(status.st_dev),
                  static_cast<std::uintmax_t>(status.st_ino));
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, kind, mode, access, process, where;
        words >> number >> kind >> mode >> access >> process >> where;
        if (kind != "FLOCK" || where != place)
            continue;
        std::string command = command_of(process);
        return fmt::format("process {}{}", process,
                           command.empty() ? ", or one that it left"
                                           : fmt::format(" ({})", command));
    }
    return {};
}

} // namespace

const char* const log_archive_file = "qrtln_archive.json";

FileDescriptor lock_server(const NotesIni& ini) {
    const std::string& directory = ini.data_directory;
    // Without O_CLOEXEC: the module's process keeps it until it has ended, also when the client is
    // killed.
    FileDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
    if (folder && ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0)
        return folder;
    int error = errno;
    if (folder && error == EWOULDBLOCK) {
        std::string holder = holder_of(directory);
        throw ClientError(ExitCode::locked,
                          fmt::format("another run backs up databases of the server {}{}",
                                      for_terminal(directory), holder.empty() ? "" : ": " + holder),
                          "wait until it has ended");
    }
    print_message(fmt::format("warning: the data directory {} cannot be locked: {}: see that no "
                              "two runs of qrtln back up this server at once",
                              for_terminal(directory), system_error_text(error)));
    return {};
}

std::string run_that_locks(const NotesIni& ini) {
    return holder_of(ini.data_directory);
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
            bool same_place = place == store.location() || is_same_folder(place, store.location());
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
    put_bytes(note, "store", store.location());
    std::string bytes = to_canonical(note);
    int error = replace_file(note_path(ini), bytes);
    return error == 0 ? ""
                      : fmt::format("cannot write {}: {}", for_terminal(note_path(ini)),
                                    system_error_text(error));
}

} // namespace qrtln
