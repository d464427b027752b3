// Files of the log, read and written at positions.
#pragma once

#include "notes_simulator/base/byte_codec.h"

#include <cstdint>
#include <filesystem>
#include <span>

namespace notes_sim {

/// A descriptor that closes itself.
class LogFile {
  public:
    /// Opens it with flags of open(). Throws StatusError.
    LogFile(const std::filesystem::path& path, int flags);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;
    int fd() const { return m_fd; }

  private:
    int m_fd;
};

/// Writes all of it. Throws StatusError.
void writeAt(int fd, std::span<const std::uint8_t> bytes, std::uint64_t position);

/// Reads up to length bytes; fewer at the end of the file. Throws StatusError.
Bytes readAt(int fd, std::size_t length, std::uint64_t position);

} // namespace notes_sim
