#include "client/sets/name_pattern.h"

#include "client/base/error.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <strings.h>

namespace qrtln {

NamePattern::NamePattern(const std::string& given) : m_given(given), m_pattern(given) {
    if (m_pattern.starts_with('/'))
        m_pattern = absolute_path(m_pattern);
    while (m_pattern.starts_with("./"))
        m_pattern.erase(0, m_pattern.find_first_not_of('/', 1));
    while (m_pattern.size() > 1 && m_pattern.ends_with('/'))
        m_pattern.pop_back();
    if (m_pattern.empty() || m_pattern == "." ||
        fmt::format("/{}/", m_pattern).find("/../") != std::string::npos)
        throw ClientError(ExitCode::usage,
                          fmt::format("the pattern '{}' matches no path", for_terminal(given)),
                          "give a name, or a path below the data directory, with * and ? if you "
                          "like");
    m_component = m_pattern.find('/') == std::string::npos;
}

// A name with brackets in it matches itself, too.
bool NamePattern::fits(std::string_view text) const {
    const std::string name(text);
    return ::strcasecmp(m_pattern.c_str(), name.c_str()) == 0 ||
           ::fnmatch(m_pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0;
}

bool NamePattern::fits_start_of(std::string_view path) const {
    for (std::size_t end = path.find('/', 1); end != std::string_view::npos;
         end = path.find('/', end + 1))
        if (fits(path.substr(0, end)))
            return true;
    return fits(path);
}

bool NamePattern::fits_component_of(std::string_view path) const {
    for (std::size_t begin = 0, end = 0; end != std::string_view::npos; begin = end + 1) {
        end = path.find('/', begin);
        if (fits(path.substr(begin, end == std::string_view::npos ? end : end - begin)))
            return true;
    }
    return false;
}

bool NamePattern::matches(const std::string& path, const std::string& data_directory) const {
    if (m_pattern.starts_with('/'))
        return fits_start_of(path);
    const std::string shown = path_for_person(path, data_directory);
    return m_component ? fits_component_of(shown) : fits_start_of(shown);
}

std::string path_for_person(const std::string& path, const std::string& data_directory) {
    return is_below(path, data_directory) && path != data_directory
               ? path_below(path, data_directory)
               : path;
}

} // namespace qrtln
