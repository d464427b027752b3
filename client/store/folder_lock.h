// The lock of a process that writes to a store, or to a folder for state.
//
// It is a flock on the file `lock`: the kernel lets go of it when the process that took it and the
// module's process, which shares it, have ended, however they did. Who has it stands in the file
// for others to read, and goes when it is released: a note that is met by the next one is of a
// process that was killed.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/base/process_note.h"

#include <functional>
#include <optional>
#include <string>

namespace qrtln {

inline constexpr const char* lock_file = "lock";

class FolderLock {
  public:
    FolderLock() = default;
    explicit FolderLock(FileDescriptor file) : m_file(std::move(file)) {}
    FolderLock(FolderLock&&) noexcept = default;
    FolderLock& operator=(FolderLock&&) noexcept = default;
    ~FolderLock(); // says so in the file, and lets go

    int get() const { return m_file.get(); }
    explicit operator bool() const { return static_cast<bool>(m_file); }

  private:
    FileDescriptor m_file;
};

// Takes the lock of a folder, in which the file is created, waiting as long as the run may, and
// notes this process in it. `description` is the folder in words. A lock that a process was killed
// with is taken over, which is said; but not where that process was on another host which may have
// it still, as the file system does not tell. Throws ClientError(locked), or as `fail` does, which
// gets what was being done and the errno.
FolderLock lock_folder(int folder, const std::string& description,
                       const std::function<void(const std::string& doing, int error)>& fail);

// Who noted itself in an open file of that name and did not release it; nothing also for what is no
// note.
std::optional<ProcessNote> read_lock_note(int file);

} // namespace qrtln
