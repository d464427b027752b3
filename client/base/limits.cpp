#include "client/base/limits.h"

#include "client/base/paths.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace qrtln {

namespace {

constexpr std::size_t maximal_component = 255;

} // namespace

std::string path_problem(const std::string& path, std::size_t limit) {
    if (path.empty() || path.front() != '/')
        return "its path is not absolute";
    if (path.size() >= limit)
        return fmt::format("its path is longer than the {} takes",
                           limit == module_path_size ? "module" : "system");
    if (path.find('\0') != std::string::npos)
        return "its path holds a NUL byte";
    if (path.back() == '/' || steps_out(std::string_view(path).substr(1)))
        return "its path holds \"..\", \".\" or an empty component";
    for (std::size_t start = 1; start < path.size();) {
        std::size_t end = std::min(path.find('/', start), path.size());
        if (end - start > maximal_component)
            return "a name in its path is longer than a file system takes";
        start = end + 1;
    }
    return {};
}

} // namespace qrtln
