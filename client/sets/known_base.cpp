#include "client/sets/known_base.h"

#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <optional>

namespace qrtln {

namespace {

constexpr std::size_t longest_name = 256;
constexpr const char* copied = "copied";

std::string base_file(const Store& store) {
    return store.stored_runtime_directory() + "/base";
}

// A store in a folder that began with a backup has it all, and no such file.
bool has_all(const Store& store) {
    return store.address() == store.location() && !exists(base_file(store));
}

} // namespace

int note_copied(const Store& store) {
    return store.address() == store.location() ? replace_file(base_file(store), copied) : 0;
}

int note_base(const Store& store, const std::string& set) {
    return has_all(store) ? 0 : replace_file(base_file(store), set);
}

bool is_new_here(const Store& store) {
    return !has_all(store) &&
           read_small_file(AT_FDCWD, base_file(store), longest_name).value_or(copied) == copied;
}

std::string unknown_base(const Store& store, const std::string& base) {
    if (has_all(store) || read_small_file(AT_FDCWD, base_file(store), longest_name) == base)
        return {};
    return fmt::format(
        "{} does not tell what the backups of {} since the set {} left undone: it is "
        "{}",
        for_terminal(store.stored_runtime_directory()), store.description(), base,
        is_new_here(store) ? "new here" : "older");
}

} // namespace qrtln
