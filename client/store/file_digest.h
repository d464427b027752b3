// The digest of a file, which is the name of its content in the store.
#pragma once

#include <functional>
#include <string>

namespace qrtln {

// The SHA-256 of a regular file's content, which is the name of its object; empty when it is none,
// or cannot be read. `between` as below.
std::string file_digest(const std::string& path, const std::function<void()>& between = {});

// Whether a regular file has the content that this name of an object, or of a content in blocks, is
// of. `between` is called now and then and ends it by
// throwing.
bool file_has_content(const std::string& path, const std::string& object,
                      const std::function<void()>& between = {});

// The same of an open file, from where it stands.
bool descriptor_has_content(int file, const std::string& object,
                            const std::function<void()>& between = {});

} // namespace qrtln
