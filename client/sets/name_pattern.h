// Items of sets by patterns that a person types.
#pragma once

#include "client/sets/manifest.h"

#include <string>
#include <string_view>

namespace qrtln {

// A name or a pattern with "*", "?" and "[…]", without regard to the case of ASCII letters, as the
// server has the names of databases. One that begins with "/" is a full path; one with another "/"
// a path below the data directory; one without "/" is matched against each component of the path
// below the data directory, so that a plain name is found anywhere there. "*" matches "/", too.
// What matches a folder holds for all below it. What lies outside the data directory has its full
// path.
class NamePattern {
  public:
    // Throws ClientError(usage) for a pattern that no path can match.
    explicit NamePattern(const std::string& given);

    // Whether it matches an item of a server with this data directory.
    bool matches(const std::string& path, const std::string& data_directory) const;
    const std::string& given() const { return m_given; }

  private:
    bool fits(std::string_view text) const;
    bool fits_start_of(std::string_view path) const;
    bool fits_component_of(std::string_view path) const;

    std::string m_given;
    std::string m_pattern;
    bool m_component = false; // without "/"
};

// The path as a person names it: below the data directory, or outside it the full one.
std::string path_for_person(const std::string& path, const std::string& data_directory);

} // namespace qrtln
