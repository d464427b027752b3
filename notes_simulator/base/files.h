// Small files: whether they may be read, and how they are replaced.
#pragma once

#include <filesystem>
#include <string>

namespace notes_sim {

/// Whether the file exists but grants nobody, or not this process, the right to read it.
bool readingDenied(const std::filesystem::path& file);

/// The path without symbolic links; what does not exist stays as it is written. One that exists
/// costs three system calls, not some for each of its parts. Throws
/// std::filesystem::filesystem_error.
std::filesystem::path canonicalPath(const std::filesystem::path& path);

/// Replaces a file so that a crash leaves the old or the new content whole. Throws StatusError.
void replaceFile(const std::filesystem::path& file, const std::string& content);

} // namespace notes_sim
