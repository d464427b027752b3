#include "notes_simulator/server.h"

#include "notes_simulator/slowness.h"
#include "notes_simulator/status.h"
#include "notes_simulator/times.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::uint64_t kMebibyte = 1024 * 1024;
constexpr std::uint64_t kSmallestExtent = 64 * 1024;
constexpr std::uint64_t kDefaultLogMebibytes = 4;
constexpr const char* kStrictZone = "+05:30"; // of the mood "zone", where SimZone names no other
constexpr std::size_t kLongestKey = 180;
constexpr std::size_t kKeptOfLongKey = 160;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool liesIn(const fs::path& path, const fs::path& directory) {
    const fs::path relative = path.lexically_relative(directory);
    return !relative.empty() && *relative.begin() != "..";
}

fs::path canonicalForm(const fs::path& path) {
    std::error_code error;
    const fs::path result = fs::weakly_canonical(path, error);
    return error ? path.lexically_normal() : result;
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

int openLockFile(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        throwErrno(errno, "lock file " + file.string());
    }
    return fd;
}

void lockFile(int fd) {
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            throwErrno(errno, "server lock");
        }
    }
}

} // namespace

NotesIni NotesIni::load(const fs::path& file) {
    std::error_code error;
    if (!fs::exists(file, error)) {
        throw StatusError(kInvalidDirectory, "there is no " + file.string());
    }
    std::ifstream stream(file);
    if (readingDenied(file) || !stream || fs::is_directory(file, error)) {
        throw StatusError(kAccessDenied, file.string());
    }
    NotesIni ini;
    for (std::string line; std::getline(stream, line);) {
        const auto equals = line.find('=');
        if (equals != std::string::npos) {
            ini.m_variables[lower(trimmed(line.substr(0, equals)))] =
                trimmed(line.substr(equals + 1));
        }
    }
    return ini;
}

std::optional<std::string> NotesIni::get(const std::string& name) const {
    const auto found = m_variables.find(lower(name));
    return found == m_variables.end() ? std::nullopt : std::optional(found->second);
}

std::uint64_t NotesIni::number(const std::string& name, std::uint64_t fallback) const {
    const std::string text = get(name).value_or("");
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? value : fallback;
}

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

bool readingDenied(const fs::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return errno == EACCES;
    }
    // The bits count for the superuser too, so that a test can deny reading whoever runs it.
    return (info.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0 || ::access(file.c_str(), R_OK) != 0;
}

void replaceFile(const fs::path& file, const std::string& content) {
    const fs::path fresh = file.string() + ".new." + std::to_string(::getpid());
    {
        std::ofstream stream(fresh, std::ios::binary | std::ios::trunc);
        stream << content;
        stream.close();
        if (!stream) {
            const int error = errno;
            std::error_code ignored; // the first failure is the one to report
            fs::remove(fresh, ignored);
            throwErrno(error, "writing " + file.string());
        }
    }
    fs::rename(fresh, file);
}

ServerLock::ServerLock(const Server& server) {
    const int gate = openLockFile(server.state / "gate.lock");
    try {
        lockFile(gate);
        m_fd = openLockFile(server.state / "server.lock");
        lockFile(m_fd);
    } catch (...) {
        ::close(gate);
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        throw;
    }
    ::close(gate);
}

ServerLock::~ServerLock() {
    ::close(m_fd);
}

} // namespace notes_sim
