#include "client/server_lock.h"

#include "client/error.h"
#include "client/store/canonical_json.h"
#include "client/text.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int note_format = 1;
constexpr std::size_t maximal_note = 65536;

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

} // namespace

const char* const log_archive_file = "qrtln_archive.json";

FileDescriptor lock_server(const NotesIni& ini) {
    FileDescriptor folder(::open(ini.data_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder && ::flock(folder.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        throw ClientError(ExitCode::locked,
                          "another backup of the server " + for_terminal(ini.data_directory) +
                              " is archiving its transaction logs",
                          "wait until it has ended; --level copy is possible at any time");
    return folder;
}

std::string other_log_archive(const NotesIni& ini, const Store& store) {
    std::optional<std::string> bytes = read_small_file(AT_FDCWD, note_path(ini), maximal_note);
    if (!bytes && errno == ENOENT)
        return {};
    std::string problem = bytes ? "" : system_error_text(errno);
    try {
        std::optional<json> note = bytes ? from_canonical(*bytes, problem) : std::nullopt;
        if (note && note->at("format").get<int>() == note_format) {
            std::string place = get_bytes(*note, "store");
            std::string id = note->at("store_id").get<std::string>();
            bool same_place = place == store.location() || is_same_folder(place, store.location());
            bool other_id = !id.empty() && !store.id().empty() && id != store.id();
            if (same_place && other_id)
                return "the store that archives the transaction logs of this server was at this "
                       "place, " +
                       for_terminal(place) +
                       ", but is another one: perhaps its disk is not mounted";
            // One that was moved is still the same; a copy beside it is not.
            bool moved = !id.empty() && id == store.id() && store_id_at(place) != id;
            if (moved || same_place)
                return {};
            return "the store " + for_terminal(place) +
                   " archives the transaction logs of this server: with some of them elsewhere "
                   "its chain would be torn";
        }
    } catch (const json::exception&) {
        problem = "is not in its form";
    }
    throw ClientError(ExitCode::failed,
                      "the note of the store that archives the transaction logs, " +
                          for_terminal(note_path(ini)) + ", cannot be read: " + problem,
                      "if it is this store, say --take-over");
}

std::string note_log_archive(const NotesIni& ini, const Store& store) {
    json note = {
        {"format", note_format}, {"store_id", store.id()}, {"since", utc_time(std::time(nullptr))}};
    put_bytes(note, "store", store.location());
    std::string bytes = to_canonical(note);
    int error = replace_file(note_path(ini), bytes);
    return error == 0
               ? ""
               : "cannot write " + for_terminal(note_path(ini)) + ": " + system_error_text(error);
}

} // namespace qrtln
