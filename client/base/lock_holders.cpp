#include "client/base/lock_holders.h"

#include "client/base/file_io.h"
#include "client/base/paths.h"

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace qrtln {

namespace {

// A line of /proc/locks, or of /proc/PID/fdinfo/FD behind "lock:"; see proc_locks(5).
struct LockLine {
    bool flock = false; // else of an open file description
    pid_t taker = 0;    // of a flock; it may have ended
    std::string place;  // "00:1b:123", the device and the inode
    std::pair<std::int64_t, std::int64_t> range;
};

std::optional<LockLine> parse_lock_line(const std::string& text) {
    std::istringstream words(text);
    std::string number, kind, mode, access, first, last;
    LockLine line;
    if (!(words >> number >> kind >> mode >> access >> line.taker >> line.place >> first >> last))
        return std::nullopt; // one that waits has "->" in front of its kind
    line.flock = kind == "FLOCK";
    if (!line.flock && kind != "OFDLCK")
        return std::nullopt;
    line.range = {0, std::numeric_limits<std::int64_t>::max()}; // "EOF" is no number
    std::from_chars(first.data(), first.data() + first.size(), line.range.first);
    std::from_chars(last.data(), last.data() + last.size(), line.range.second);
    return line;
}

class HolderSearch {
  public:
    HolderSearch(int file, LockKind kind) : m_flock(kind == LockKind::whole) {
        std::error_code error;
        m_path =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), error).string();
        struct stat status {};
        if (::fstat(file, &status) != 0)
            return;
        char place[64];
        std::snprintf(place, sizeof place, "%02x:%02x:%ju", major(status.st_dev),
                      minor(status.st_dev), static_cast<std::uintmax_t>(status.st_ino));
        m_place = place;
        m_inode = m_place.substr(m_place.rfind(':'));
    }

    std::vector<LockHolder> run() {
        for (const std::string& name :
             names_in_folder("/proc").value_or(std::vector<std::string>()))
            if (name.find_first_not_of("0123456789") == std::string::npos)
                look_at_files_of(name);
        if (m_flock)
            look_at_all_locks();
        std::vector<LockHolder> holders;
        for (auto& [process, holder] : m_holders)
            holders.push_back(std::move(holder));
        return holders;
    }

  private:
    // By links and lines alone: a look at the file itself may wait for a server that is away.
    void look_at_files_of(const std::string& process) {
        const std::string folder = "/proc/" + process;
        for (const std::string& fd :
             names_in_folder(folder + "/fd").value_or(std::vector<std::string>())) {
            std::error_code error;
            const std::string path =
                std::filesystem::read_symlink(folder + "/fd/" + fd, error).string();
            if (error || name_of(path) != name_of(m_path)) // elsewhere it may be mounted elsewhere
                continue;
            std::ifstream information(folder + "/fdinfo/" + fd);
            for (std::string text; std::getline(information, text);)
                if (text.starts_with("lock:"))
                    if (std::optional<LockLine> line = parse_lock_line(text.substr(5)))
                        if (is_of_file(*line, path))
                            add(*line, static_cast<pid_t>(std::stol(process)));
        }
    }

    // Some file systems tell another device than the kernel's list has.
    bool is_of_file(const LockLine& line, const std::string& path) const {
        return line.flock == m_flock &&
               (line.place == m_place || (path == m_path && line.place.ends_with(m_inode)));
    }

    // Also of processes into which this user may not look.
    void look_at_all_locks() {
        std::ifstream locks("/proc/locks");
        for (std::string text; std::getline(locks, text);)
            if (std::optional<LockLine> line = parse_lock_line(text))
                if (line->flock && line->place == m_place && m_takers.insert(line->taker).second)
                    add(*line, 0);
    }

    // A child shares the flock of its parent: as long as that runs it is the one to tell.
    void add(const LockLine& line, pid_t process) {
        LockHolder holder;
        if (m_flock) {
            m_takers.insert(line.taker);
            if (std::optional<ProcessNote> taker = running_process(line.taker)) {
                holder.process = std::move(*taker);
                m_holders.try_emplace(line.taker, std::move(holder));
                return;
            }
            holder.left_by = line.taker;
        }
        holder.process = running_process(process).value_or(ProcessNote{});
        LockHolder& known = m_holders.try_emplace(process, std::move(holder)).first->second;
        if (!m_flock)
            known.ranges.push_back(line.range);
    }

    const bool m_flock;
    std::string m_path;
    std::string m_place;
    std::string m_inode; // with the colon before it
    std::map<pid_t, LockHolder> m_holders;
    std::set<pid_t> m_takers; // that were met
};

} // namespace

std::vector<LockHolder> lock_holders(int file, LockKind kind) {
    return HolderSearch(file, kind).run();
}

} // namespace qrtln
