// File descriptors that close themselves, and reads and writes that finish or say why not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace qrtln {

using Bytes = std::span<const std::byte>;

inline Bytes as_bytes(std::string_view text) {
    return std::as_bytes(std::span<const char>(text.data(), text.size()));
}

// Writes all of it. Returns 0 or the errno.
int write_all(int fd, Bytes bytes);

// A buffer for a file that is read piece by piece.
inline constexpr std::size_t read_size = std::size_t{1} << 20;

// Reads until the buffer is full or the file ends, over short reads and interruptions. Returns the
// number of bytes read, or the negated errno.
ssize_t read_up_to(int fd, std::span<std::byte> buffer);

// The content of a small file below `directory` (AT_FDCWD for a full path), never through a
// symbolic link in the last component. Returns nothing and sets errno when it cannot be read or is
// larger than `limit` bytes (EFBIG).
std::optional<std::string> read_small_file(int directory, const std::string& name,
                                           std::size_t limit);

// Gives a file new content so that a crash leaves the old one or the new one, flushed to disk: by
// way of a file of its name with ".tmp". It gets this mode; from root it belongs
// to the owner of its folder. Returns 0 or the errno; the old one is then there still, unless
// flushing its folder failed.
int replace_file(const std::string& path, std::string_view content, mode_t mode = 0600);

// Flushes the folder `name` below `directory`, or an open one. Returns 0 or the errno; also 0 where
// the file system cannot flush folders at all, as some network and user-space ones: the files in it
// are flushed by themselves.
int flush_directory(int directory, const std::string& name);
int flush_folder(int folder);

// The names in an open folder, or in the one of a path, sorted, without "." and "..". Returns
// nothing and sets errno when it cannot be read to its end: a part of them would pass for all.
std::optional<std::vector<std::string>> names_in_folder(int folder);
std::optional<std::vector<std::string>> names_in_folder(const std::string& path);

// Removes a folder and all below it; symbolic links are removed, never followed. Returns 0 or the
// first errno; goes on with the rest after a failure.
int remove_tree(int directory, const std::string& name);

// When its content was last changed, in nanoseconds since 1970.
inline std::int64_t modification_time_ns(const struct stat& status) {
    return status.st_mtim.tv_sec * std::int64_t{1'000'000'000} + status.st_mtim.tv_nsec;
}

// "a FIFO", "a folder", for messages.
const char* file_type_name(mode_t mode);

} // namespace qrtln
