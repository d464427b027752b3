// Paths: by their texts, and where they really lead.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qrtln {

// Whether something has this name, a symbolic link to nowhere too.
bool exists(const std::string& path);

// The path without symbolic links, or nothing with errno set.
std::optional<std::string> real_path(const std::string& path);

// Likewise for something that need not exist yet, in a folder that does.
std::optional<std::string> real_path_of_new(const std::string& path);

// Whether the path, which has no symbolic links and need not be there, is that folder or lies in
// it, by whatever name: a folder can be mounted twice.
bool lies_in(const std::string& path, const std::string& folder);

// Whether both paths lead to one place; where one of them leads nowhere, whether they are the same.
bool is_same_place(const std::string& one, const std::string& other);

// The path made absolute against the working directory, "." and double slashes removed.
std::string absolute_path(const std::string& path);

// The folder of a full path, "/" for one right below it; the last component; and the part below the
// folder `root`, without a leading "/". All by their texts.
std::string folder_of(const std::string& path);
std::string name_of(const std::string& path);
std::string path_below(const std::string& path, const std::string& root);

// Whether `path` is `directory` or lies below it, by their texts.
bool is_below(std::string_view path, std::string_view directory);

// The paths from "/" down to this one, which is absolute.
std::vector<std::string> steps_to(const std::string& path);

// Whether a relative name could lead out of its folder by its text: absolute, an empty component,
// "." or "..", a NUL. The empty name is the folder itself.
bool steps_out(std::string_view relative);

// The folder itself or the nearest one above it that is there. REQUIRES: a full path.
std::string nearest_existing(std::string path);

} // namespace qrtln
