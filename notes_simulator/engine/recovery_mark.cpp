#include "notes_simulator/engine/recovery_mark.h"

#include "notes_simulator/base/byte_codec.h"
#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/storage/side_files.h"
#include "notes_simulator/storage/sql.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr off_t kChangeCounterAt = 24; // in the file header of SQLite, big-endian, 4 bytes

/// Which file, and at which of its transactions.
struct FileState {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t changeCounter = 0;
};

struct Mark {
    fs::path file;
    FileState before;
};

std::optional<FileState> stateOf(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat info {};
    std::uint8_t counter[4] = {};
    const bool read = ::fstat(fd, &info) == 0 &&
                      ::pread(fd, counter, sizeof counter, kChangeCounterAt) == sizeof counter;
    ::close(fd);
    FileState state;
    state.device = static_cast<std::uint64_t>(info.st_dev);
    state.inode = static_cast<std::uint64_t>(info.st_ino);
    for (const std::uint8_t byte : counter) {
        state.changeCounter = state.changeCounter << 8 | byte;
    }
    return read ? std::optional(state) : std::nullopt;
}

fs::path markFile(const Server& server, const fs::path& file) {
    return server.state / "recovering" / server.keyOf(file);
}

std::optional<Mark> readMark(const fs::path& path) try {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << stream.rdbuf();
    const std::string bytes = text.str();
    ByteReader reader(asBytes(bytes));
    Mark mark;
    mark.before.device = reader.u64();
    mark.before.inode = reader.u64();
    mark.before.changeCounter = reader.u32();
    mark.file = reader.text(reader.left());
    return mark;
} catch (const std::out_of_range&) {
    return std::nullopt; // replaced as a whole, so that this is none of ours
}

void settle(const Server& server, const fs::path& markPath) {
    const auto mark = readMark(markPath);
    if (mark) {
        const auto present = stateOf(mark->file);
        // The counter grows once, at the end of the transaction.
        const bool same = present && present->device == mark->before.device &&
                          present->inode == mark->before.inode &&
                          present->changeCounter - mark->before.changeCounter <= 1;
        if (same) {
            // Reading rolls back.
            Connection(mark->file, Connection::Mode::kReadWrite).integer("PRAGMA schema_version");
        } else {
            fs::remove(journalFile(server, mark->file));
        }
    }
    std::error_code ignored; // a mark without a journal harms nobody
    fs::remove(markPath, ignored);
}

} // namespace

RecoveryMark::RecoveryMark(const Server& server, const fs::path& file, const ServerLock&)
    : m_mark(markFile(server, file)), m_journal(journalFile(server, file)) {
    const auto state = stateOf(file);
    if (!state) {
        throw StatusError(kAccessDenied, file.string());
    }
    ByteWriter writer;
    writer.u64(state->device);
    writer.u64(state->inode);
    writer.u32(state->changeCounter);
    writer.text(file.string());
    fs::create_directories(m_mark.parent_path());
    replaceFile(m_mark, std::string(writer.bytes.begin(), writer.bytes.end()));
}

RecoveryMark::~RecoveryMark() {
    std::error_code error;
    const std::uintmax_t left = fs::file_size(m_journal, error);
    if (error || left == 0) {
        fs::remove(m_mark, error);
    }
}

void settleInterruptedRecovery(const Server& server, const fs::path& file, const ServerLock&) {
    settle(server, markFile(server, file));
}

void settleInterruptedRecoveries(const Server& server, const ServerLock&) {
    std::error_code error;
    std::vector<fs::path> marks;
    for (const auto& entry : fs::directory_iterator(server.state / "recovering", error)) {
        marks.push_back(entry.path());
    }
    for (const fs::path& mark : marks) {
        try {
            settle(server, mark);
        } catch (const StatusError&) {
            // A damaged database is reported when it is opened by name; its mark stays.
        } catch (const fs::filesystem_error&) {
            // Likewise.
        }
    }
}

} // namespace notes_sim
