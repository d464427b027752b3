#include "notes_simulator/storage/recording_vfs.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/storage/before_images.h"
#include "notes_simulator/storage/side_files.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr int kLongestPath = 4096;

std::mutex g_mutex;              // guards g_server
std::optional<Server> g_server;  // the server whose databases are recorded
sqlite3_vfs* g_system = nullptr; // the layer below

std::optional<Server> currentServer() {
    const std::lock_guard guard(g_mutex);
    return g_server;
}

/// What one open file needs beside the file of the layer below, which follows in memory.
struct RecordingFile {
    sqlite3_file base;
    std::string* name;    // a redirected name must live as long as the file
    std::string* changes; // path of the list of changes; none for files that are not recorded
    int recorder;         // descriptor of the list while it is open, else -1
    BeforeImages* images; // where what changes is kept as it was, while the list is open
    sqlite3_file* below() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

RecordingFile* asRecording(sqlite3_file* file) {
    return reinterpret_cast<RecordingFile*>(file);
}
sqlite3_file* below(sqlite3_file* file) {
    return asRecording(file)->below();
}

/// The place of a rollback journal: the state folder while a server is named.
std::string journalPlace(const char* name) {
    const std::string_view text = name;
    const auto server = currentServer();
    if (!server || !text.ends_with(kJournalSuffix)) {
        return name;
    }
    const fs::path database(text.substr(0, text.size() - kJournalSuffix.size()));
    return journalFile(*server, database).string();
}

void stopRecording(RecordingFile& file) {
    if (file.recorder >= 0) {
        ::close(file.recorder);
        file.recorder = -1;
    }
    delete file.images;
    file.images = nullptr;
}

int append(const RecordingFile& file, const ChangedRange& range) {
    ssize_t written = 0;
    do {
        written = ::write(file.recorder, &range, sizeof range);
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(sizeof range) ? SQLITE_OK : SQLITE_IOERR_WRITE;
}

/// Appends one range to the list of changes, or what of it is kept as it was. Must succeed before
/// the change itself is made.
int record(RecordingFile& file, std::uint64_t offset, std::uint64_t length) {
    if (file.recorder < 0) {
        return SQLITE_OK;
    }
    if (file.images == nullptr) {
        return append(file, {offset, length});
    }
    const auto read = [&file](std::span<std::uint8_t> bytes, std::uint64_t from) {
        return file.below()->pMethods->xRead(file.below(), bytes.data(),
                                             static_cast<int>(bytes.size()),
                                             static_cast<sqlite3_int64>(from));
    };
    return file.images->keep({offset, length}, read,
                             [&file](const ChangedRange& kept) { return append(file, kept); });
}

int shimClose(sqlite3_file* file) {
    RecordingFile& self = *asRecording(file);
    stopRecording(self);
    const int result = self.below()->pMethods->xClose(self.below());
    delete self.name;
    delete self.changes;
    self.name = nullptr;
    self.changes = nullptr;
    return result;
}

int shimRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return below(file)->pMethods->xRead(below(file), buffer, amount, offset);
}

int shimWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    const int result = record(*asRecording(file), static_cast<std::uint64_t>(offset),
                              static_cast<std::uint64_t>(amount));
    return result != SQLITE_OK ? result
                               : below(file)->pMethods->xWrite(below(file), buffer, amount, offset);
}

int shimTruncate(sqlite3_file* file, sqlite3_int64 size) {
    RecordingFile& self = *asRecording(file);
    sqlite3_int64 present = 0;
    int result = self.below()->pMethods->xFileSize(self.below(), &present);
    if (result == SQLITE_OK && present > size) {
        result = record(self, static_cast<std::uint64_t>(size),
                        static_cast<std::uint64_t>(present - size));
    }
    return result != SQLITE_OK ? result : self.below()->pMethods->xTruncate(self.below(), size);
}

int shimSync(sqlite3_file* file, int flags) {
    return below(file)->pMethods->xSync(below(file), flags);
}

int shimFileSize(sqlite3_file* file, sqlite3_int64* size) {
    return below(file)->pMethods->xFileSize(below(file), size);
}

int shimLock(sqlite3_file* file, int level) try {
    RecordingFile& self = *asRecording(file);
    const int result = self.below()->pMethods->xLock(self.below(), level);
    if (result != SQLITE_OK || level != SQLITE_LOCK_EXCLUSIVE || self.changes == nullptr) {
        return result;
    }
    stopRecording(self);
    self.recorder = ::open(self.changes->c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (self.recorder < 0 && errno != ENOENT) {
        // A backup may be in progress, so that nothing may be written without being recorded.
        self.below()->pMethods->xUnlock(self.below(), SQLITE_LOCK_SHARED);
        return SQLITE_IOERR_LOCK;
    }
    if (self.recorder >= 0) {
        self.images = BeforeImages::open(fs::path(*self.changes).parent_path()).release();
    }
    return SQLITE_OK;
} catch (const std::exception&) {
    return SQLITE_IOERR_LOCK;
}

int shimUnlock(sqlite3_file* file, int level) {
    stopRecording(*asRecording(file));
    return below(file)->pMethods->xUnlock(below(file), level);
}

int shimCheckReservedLock(sqlite3_file* file, int* result) {
    return below(file)->pMethods->xCheckReservedLock(below(file), result);
}

int shimFileControl(sqlite3_file* file, int operation, void* argument) {
    return below(file)->pMethods->xFileControl(below(file), operation, argument);
}

int shimSectorSize(sqlite3_file* file) {
    return below(file)->pMethods->xSectorSize(below(file));
}

int shimDeviceCharacteristics(sqlite3_file* file) {
    return below(file)->pMethods->xDeviceCharacteristics(below(file));
}

// Version 1: neither shared memory nor memory maps, which would pass the record by.
constexpr sqlite3_io_methods kMethods = {
    1,
    shimClose,
    shimRead,
    shimWrite,
    shimTruncate,
    shimSync,
    shimFileSize,
    shimLock,
    shimUnlock,
    shimCheckReservedLock,
    shimFileControl,
    shimSectorSize,
    shimDeviceCharacteristics,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

int shimOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) try {
    RecordingFile& self = *asRecording(file);
    std::memset(&self, 0, sizeof self);
    self.recorder = -1;
    auto place = std::make_unique<std::string>();
    auto changes = std::make_unique<std::string>();
    const char* opened = name;
    if (name != nullptr && (flags & SQLITE_OPEN_MAIN_JOURNAL) != 0) {
        *place = journalPlace(name);
        if (*place != name) {
            opened = place->c_str();
            // As a main journal the layer below would look for a database beside it.
            flags &= ~(SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_URI);
            flags |= SQLITE_OPEN_TEMP_JOURNAL;
        }
    }
    if (name != nullptr && (flags & SQLITE_OPEN_MAIN_DB) != 0) {
        if (const auto server = currentServer()) {
            *changes = changesFile(*server, server->keyOf(name)).string();
        }
    }
    const int result = g_system->xOpen(g_system, opened, self.below(), flags, outFlags);
    if (result != SQLITE_OK) {
        return result;
    }
    self.base.pMethods = &kMethods;
    self.name = place.release();
    self.changes = changes->empty() ? nullptr : changes.release();
    return SQLITE_OK;
} catch (const std::exception&) {
    return SQLITE_NOMEM;
}

int shimDelete(sqlite3_vfs*, const char* name, int syncDirectory) try {
    return g_system->xDelete(g_system, journalPlace(name).c_str(), syncDirectory);
} catch (const std::exception&) {
    return SQLITE_NOMEM;
}

int shimAccess(sqlite3_vfs*, const char* name, int flags, int* result) try {
    return g_system->xAccess(g_system, journalPlace(name).c_str(), flags, result);
} catch (const std::exception&) {
    return SQLITE_NOMEM;
}

// The layer below ends at 512 bytes, which is too short for the paths of a server.
int shimFullPathname(sqlite3_vfs*, const char* name, int length, char* out) try {
    const std::string full = canonicalPath(name).string();
    if (full.size() >= static_cast<std::size_t>(length)) {
        return SQLITE_CANTOPEN;
    }
    std::memcpy(out, full.c_str(), full.size() + 1);
    return SQLITE_OK;
} catch (const fs::filesystem_error&) {
    return SQLITE_CANTOPEN;
} catch (const std::exception&) {
    return SQLITE_NOMEM;
}

int shimRandomness(sqlite3_vfs*, int length, char* out) {
    return g_system->xRandomness(g_system, length, out);
}

int shimSleep(sqlite3_vfs*, int microseconds) {
    return g_system->xSleep(g_system, microseconds);
}

int shimCurrentTime(sqlite3_vfs*, double* now) {
    return g_system->xCurrentTime(g_system, now);
}

int shimGetLastError(sqlite3_vfs*, int length, char* out) {
    return g_system->xGetLastError(g_system, length, out);
}

sqlite3_vfs g_shim = {};

} // namespace

void registerRecordingVfs() {
    static const bool registered = [] {
        g_system = sqlite3_vfs_find("unix");
        if (g_system == nullptr) {
            return false;
        }
        g_shim.iVersion = 1;
        g_shim.szOsFile = static_cast<int>(sizeof(RecordingFile)) + g_system->szOsFile;
        g_shim.mxPathname = kLongestPath;
        g_shim.zName = kRecordingVfsName;
        g_shim.xOpen = shimOpen;
        g_shim.xDelete = shimDelete;
        g_shim.xAccess = shimAccess;
        g_shim.xFullPathname = shimFullPathname;
        g_shim.xRandomness = shimRandomness;
        g_shim.xSleep = shimSleep;
        g_shim.xCurrentTime = shimCurrentTime;
        g_shim.xGetLastError = shimGetLastError;
        return sqlite3_vfs_register(&g_shim, 0) == SQLITE_OK;
    }();
    if (!registered) {
        throw StatusError(kIoError, "registering the recording file-system layer");
    }
}

void setRecordingServer(const Server& server) {
    const std::lock_guard guard(g_mutex);
    g_server = server;
}

void clearRecordingServer() {
    const std::lock_guard guard(g_mutex);
    g_server.reset();
}

} // namespace notes_sim
