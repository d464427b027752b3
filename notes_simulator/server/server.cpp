#include "notes_simulator/server/server.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/server/slowness.h"

#include <algorithm>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::uint64_t kMebibyte = 1024 * 1024;
constexpr std::uint64_t kSmallestExtent = 64 * 1024;
constexpr std::uint64_t kDefaultLogMebibytes = 4;
constexpr const char* kStrictZone = "+05:30"; // of the mood "zone", where SimZone names no other
constexpr std::size_t kLongestKey = 180;
constexpr std::size_t kKeptOfLongKey = 160;

bool liesIn(const fs::path& path, const fs::path& directory) {
    const fs::path relative = path.lexically_relative(directory);
    return !relative.empty() && *relative.begin() != "..";
}

fs::path canonicalForm(const fs::path& path) {
    try {
        return canonicalPath(path);
    } catch (const fs::filesystem_error&) {
        return path.lexically_normal();
    }
}

/// 64-bit FNV-1a; only shortens file names, so that no strength is asked of it.
std::string shortHash(const std::string& text) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const unsigned char c : text) {
        hash = (hash ^ c) * 0x100000001b3ULL;
    }
    char digits[17] = {};
    std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

} // namespace

std::string Server::userName() const {
    return ini.get("SimUserName").value_or("CN=Admin/O=Simulated");
}

fs::path Server::resolve(const fs::path& path) const {
    return (path.is_absolute() ? path : data / path).lexically_normal();
}

bool Server::contains(const fs::path& path) const {
    return liesIn(path.lexically_normal(), data) || liesIn(canonicalForm(path), canonical);
}

std::string Server::nameOf(const fs::path& path) const {
    const fs::path real = canonicalForm(resolve(path));
    return liesIn(real, canonical) ? real.lexically_relative(canonical).string() : real.string();
}

std::string Server::keyOf(const fs::path& path) const {
    const std::string name = nameOf(path);
    std::string key;
    for (const char c : name) {
        if (c == '/') {
            key += "%2F";
        } else if (c == '%') {
            key += "%25";
        } else {
            key += c;
        }
    }
    if (key.size() > kLongestKey) {
        key = key.substr(0, kKeptOfLongKey) + "~" + shortHash(name);
    }
    return key;
}

bool isShortenedKey(const std::string& key) {
    return key.size() == kKeptOfLongKey + 1 + shortHash("").size() && key[kKeptOfLongKey] == '~';
}

Server openServerByIni(const fs::path& iniFile) {
    Server server;
    server.ini = NotesIni::load(iniFile);
    const std::string directory = server.ini.get("Directory").value_or("");
    std::error_code error;
    if (directory.empty() || !fs::is_directory(directory, error)) {
        throw StatusError(kInvalidDirectory, "Directory=" + directory + " of " + iniFile.string());
    }
    server.data = fs::absolute(directory).lexically_normal();
    if (!server.data.has_filename()) {
        server.data = server.data.parent_path();
    }
    server.canonical = canonicalForm(server.data);
    server.root = server.data.parent_path();
    server.state = server.root / "state";
    if (!fs::is_directory(server.state, error)) {
        throw StatusError(kInvalidDirectory,
                          server.root.string() + " is no server folder, it has no state folder");
    }
    const std::optional<Moods> moods = parseMoods(server.ini.get("SimStrict").value_or(""));
    if (!moods) {
        throw StatusError(kInvalidArgument, "SimStrict of " + iniFile.string());
    }
    server.moods = *moods;
    if (!isSlowness(server.ini.get("SimSlow").value_or(""))) {
        throw StatusError(kInvalidArgument, "SimSlow of " + iniFile.string());
    }
    const std::string zone =
        server.ini.get("SimZone").value_or(moods->has(Mood::kZone) ? kStrictZone : "");
    server.zone = parseZone(zone);
    if (!zone.empty() && !server.zone) {
        throw StatusError(kInvalidArgument, "SimZone of " + iniFile.string());
    }
    if (server.moods.has(Mood::kLogs)) {
        server.firstLog = static_cast<std::uint32_t>(server.ini.number("SimFirstLog", 0));
    }
    const fs::path logs = server.ini.get("TRANSLOG_Path").value_or("");
    server.logs = logs.empty() ? server.root / "logs" : server.resolve(logs);
    server.extentSize =
        std::max(kSmallestExtent, server.ini.number("TRANSLOG_SimExtentSize", kMebibyte));
    const std::uint64_t logSize =
        server.ini.number("TRANSLOG_MaxSize", kDefaultLogMebibytes) * kMebibyte;
    server.ringExtents = static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(logSize / server.extentSize, 2, 100000));
    if (server.ini.number("TRANSLOG_Status", 0) == 1) {
        const std::uint64_t style = server.ini.number("TRANSLOG_Style", 0);
        if (style > 2) {
            throw StatusError(kInvalidArgument, "TRANSLOG_Style of " + iniFile.string());
        }
        server.style = static_cast<LogStyle>(style);
    }
    return server;
}

Server openServerFolder(const fs::path& root) {
    return openServerByIni(root / "notes.ini");
}

std::optional<fs::path> findServerFolder(const fs::path& file) {
    std::error_code error;
    fs::path folder = canonicalForm(fs::absolute(file)).parent_path();
    for (; folder.has_relative_path(); folder = folder.parent_path()) {
        if (fs::is_directory(folder / "state", error) && fs::exists(folder / "notes.ini", error) &&
            liesIn(canonicalForm(fs::absolute(file)), canonicalForm(folder / "data"))) {
            return folder;
        }
    }
    return std::nullopt;
}

} // namespace notes_sim
