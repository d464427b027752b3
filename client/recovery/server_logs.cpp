#include "client/recovery/server_logs.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/recovery/journal.h"
#include "client/store/file_digest.h"

#include <cerrno>
#include <charconv>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace qrtln {

namespace {

constexpr std::string_view control_file = "nlogctrl.lfh";

// The content of a file in the folder of the logs. A plan is made several times, and they are
// large.
const std::string& digest_of(const std::string& path, const FileState& state,
                             const std::function<void()>& between) {
    static std::map<std::string, std::pair<FileState, std::string>> known;
    auto entry = known.find(path);
    if (entry == known.end() || entry->second.first != state)
        entry = known.insert_or_assign(path, std::pair(state, file_digest(path, between))).first;
    return entry->second.second;
}

} // namespace

// What was not written since needs not be read.
bool is_stored_log(const std::string& path, const ManifestItem& item,
                   const std::function<void()>& between) {
    FileState there = file_state(path);
    if (!there.there || static_cast<std::uint64_t>(there.size) != item.size)
        return false;
    bool untouched =
        item.has_metadata && there.mtime_ns == item.mtime_ns && name_of(path) == name_of(item.path);
    return untouched || digest_of(path, there, between) == item.object;
}

std::optional<std::uint32_t> log_number_of(const std::string& file_name) {
    constexpr std::string_view extension = ".TXN";
    std::string_view name = file_name;
    if (!name.starts_with('S') || !name.ends_with(extension))
        return std::nullopt;
    name.remove_prefix(1);
    name.remove_suffix(extension.size());
    std::uint32_t number = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (name.empty() || error != std::errc() || end != name.data() + name.size())
        return std::nullopt;
    return number;
}

ServerLogs look_at_server_logs(const std::string& directory) {
    ServerLogs logs;
    logs.directory = directory;
    if (directory.empty())
        return logs;
    std::optional<std::vector<std::string>> names = names_in_folder(directory);
    if (!names && errno != ENOENT)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot read the folder of the transaction logs, {}: {}",
                                      for_terminal(directory), system_error_text(errno)),
                          "TRANSLOG_Path in notes.ini names it");
    if (!names) {
        logs.missing = true;
        return logs;
    }
    bool other_names = false; // of logs, in a form that tells no number
    for (const std::string& name : *names) {
        logs.has_control = logs.has_control || name == control_file;
        struct stat status {};
        std::optional<std::uint32_t> number = log_number_of(name);
        other_names = other_names || (!number && item_kind_of(name) == ItemKind::log);
        if (number && ::lstat((directory + "/" + name).c_str(), &status) == 0 &&
            S_ISREG(status.st_mode))
            logs.last_used[*number] = modification_time_ns(status);
    }
    logs.missing = logs.last_used.empty() && !logs.has_control && !other_names; // a new disk
    return logs;
}

void compare_with_stored(ServerLogs& server, const StoredLogs& stored,
                         const std::function<void()>& between) {
    if (server.directory.empty() || stored.logs.empty())
        return;
    std::map<std::uint32_t, const StoredLog*> whole; // the newest copy of each
    for (const PlacedLog& placed : place_newest_archive(stored)) {
        const LogIdentity& log = *placed.log->item.log;
        server.names_tell =
            server.names_tell && log_number_of(name_of(placed.log->item.path)) == log.number;
        if (exists(server.directory + "/" + name_of(placed.log->item.path)))
            server.missing = false; // whatever form its name has
        if (!log.active && !placed.log->damaged)
            whole[log.number] = placed.log;
    }
    std::map<std::uint32_t, std::int64_t> found;
    for (const auto& [number, log] : whole) {
        const std::string path = server.directory + "/" + name_of(log->item.path);
        if (!exists(path))
            continue;
        if (is_stored_log(path, log->item, between))
            found[number] = file_state(path).mtime_ns;
        else
            server.names_tell = false;
    }
    if (!server.names_tell)
        server.last_used = std::move(found);
}

std::string log_target(const ServerLogs& server, const StoredLog& log) {
    return fmt::format("{}/{}", server.directory,
                       log.target_name.empty() ? name_of(log.item.path) : log.target_name);
}

} // namespace qrtln
