#include "client/sets/server_scope.h"

#include "client/base/paths.h"
#include "client/base/text.h"

namespace qrtln {

namespace {

constexpr std::size_t maximal_name = 200; // a folder's name with room for escapes

} // namespace

bool ServerScope::covers(const Manifest& manifest) const {
    return manifest.server_name == name && manifest.data_directory == recorded_data_directory &&
           (own_name.empty() || manifest.own_name.empty() || manifest.own_name == own_name);
}

std::string server_name_problem(const std::string& name) {
    if (name.empty())
        return "it is empty";
    if (name.size() > maximal_name / 3)
        return "it is longer than " + std::to_string(maximal_name / 3) + " bytes";
    if (for_terminal(name) != name)
        return "it is not made of printable characters";
    return {};
}

std::string server_text(const Manifest& manifest) {
    std::string text =
        for_terminal(manifest.server_name) + " (" + for_terminal(manifest.data_directory);
    if (!manifest.own_name.empty())
        text += ", " + for_terminal(manifest.own_name);
    return text + ")";
}

void move_data_directory(Manifest& manifest, const std::string& from, const std::string& to) {
    if (from == to)
        return;
    auto move = [&](std::string& path) {
        if (is_below(path, from))
            path = to + path.substr(from.size());
    };
    for (ManifestItem& item : manifest.items)
        move(item.path);
    for (std::string& argument : manifest.arguments)
        move(argument);
    move(manifest.notes_ini);
    move(manifest.data_directory);
}

} // namespace qrtln
