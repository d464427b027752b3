// Small files: whether they may be read, and how they are replaced.
#pragma once

#include <filesystem>
#include <string>

namespace notes_sim {

/// Whether the file exists but grants nobody, or not this process, the right to read it.
bool readingDenied(const std::filesystem::path& file);

/// Replaces a file so that a crash leaves the old or the new content whole. Throws StatusError.
void replaceFile(const std::filesystem::path& file, const std::string& content);

} // namespace notes_sim
