#include "client/domino/database_names.h"

#include <algorithm>
#include <array>
#include <strings.h>

namespace qrtln {

namespace {

// What the module selects from a folder: databases, and the files that belong to a server.
constexpr std::array selected_extensions = {".nsf", ".ns2", ".ns3", ".ns4", ".ns5", ".ntf", ".ncf",
                                            ".box", ".njf", ".id",  ".dsk", ".dic", ".cfg", ".nlo"};
constexpr std::array database_extensions = {".nsf", ".ns2", ".ns3", ".ns4", ".ntf", ".box"};

template <typename Extensions>
bool has_extension(std::string_view name, const Extensions& extensions) {
    return std::any_of(extensions.begin(), extensions.end(), [&](std::string_view extension) {
        return name.size() >= extension.size() &&
               ::strncasecmp(name.data() + name.size() - extension.size(), extension.data(),
                             extension.size()) == 0;
    });
}

} // namespace

bool is_database_name(std::string_view name) {
    return has_extension(name, database_extensions);
}

bool is_selected_name(std::string_view name) {
    return has_extension(name, selected_extensions);
}

} // namespace qrtln
