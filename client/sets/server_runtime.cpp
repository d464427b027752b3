#include "client/sets/server_runtime.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <set>
#include <sys/stat.h>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int owner_format = 1;
constexpr const char* owner_file = "/server.json";
constexpr const char* others_folder = "/servers";
constexpr std::size_t maximal_state = std::size_t{1} << 30;

[[noreturn]] void fail(const std::string& doing, const std::string& path, int error) {
    throw_if_no_permission(doing, path, error);
    throw ClientError(ExitCode::failed, "cannot " + doing + " " + for_terminal(path) + ": " +
                                            system_error_text(error));
}

// The server whose run-time data lies in `runtime` itself; empty when nobody said so yet.
std::string read_owner(const std::string& runtime) {
    const std::string file = runtime + owner_file;
    std::optional<std::string> bytes = read_small_file(AT_FDCWD, file, 65536);
    if (!bytes && errno == ENOENT)
        return {};
    if (!bytes)
        fail("read", file, errno);
    std::string problem;
    try {
        std::optional<json> document = from_canonical(*bytes, problem);
        if (document && document->at("format").get<int>() == owner_format)
            return document->at("server").get<std::string>();
    } catch (const json::exception&) {
        problem = "is not in its form";
    }
    throw ClientError(ExitCode::damage_found, for_terminal(file) + " is damaged: " + problem,
                      "if only one server uses this store, remove the file; else bring it back "
                      "from a copy of the store");
}

// Before anybody said so: the server of the newest set that can be read.
std::string owner_by_sets(Store& store) {
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        if (CatalogueEntry entry = load_set(store, *name); entry.manifest)
            return entry.manifest->server_name;
    return {};
}

bool has_unnamed_sets_of(Store& store, const std::string& server) {
    for (const std::string& name : store.set_names()) {
        CatalogueEntry entry = load_set(store, name);
        if (entry.manifest && !entry.manifest->names_server &&
            entry.manifest->server_name == server)
            return true;
    }
    return false;
}

// A server's name as that of a folder.
std::string folder_name(const std::string& server) {
    std::string name;
    for (char character : server) {
        bool plain = std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '-' ||
                     character == '_' || (character == '.' && !name.empty());
        name += plain ? std::string(1, character) : "%" + to_hex(std::string(1, character));
    }
    return name;
}

// Made under another name, so that a crash leaves no half of it.
void make_runtime_directory(const std::string& runtime, const std::string& path, bool copies) {
    const std::string others = runtime + others_folder;
    if (::mkdir(others.c_str(), 0700) != 0 && errno != EEXIST)
        fail("create the folder", others, errno);
    (void)give_to_owner_of_folder(others);
    const std::string unfinished = path + ".tmp";
    (void)remove_tree(AT_FDCWD, unfinished);
    if (::mkdir(unfinished.c_str(), 0700) != 0)
        fail("create the folder", unfinished, errno);
    (void)give_to_owner_of_folder(unfinished);
    if (copies)
        for (const auto& entry : std::filesystem::directory_iterator(runtime)) {
            std::string name = entry.path().filename();
            if (!entry.is_regular_file() || "/" + name == owner_file)
                continue;
            std::optional<std::string> bytes =
                read_small_file(AT_FDCWD, entry.path(), maximal_state);
            int error = bytes ? replace_file(unfinished + "/" + name, *bytes) : errno;
            if (error != 0)
                fail("copy", entry.path(), error);
        }
    int error = ::rename(unfinished.c_str(), path.c_str()) != 0 ? errno : 0;
    for (const std::string& folder : {others, runtime})
        if (error == 0)
            error = flush_directory(AT_FDCWD, folder);
    if (error != 0)
        fail("create the folder", path, error);
}

std::string server_runtime_directory(Store& store, const std::string& runtime,
                                     const std::string& server, bool creates) {
    std::string owner = read_owner(runtime);
    if (owner.empty()) {
        owner = owner_by_sets(store);
        if (owner.empty() || owner == server) {
            // Where it cannot be written a backup fails soon, and a restore need not.
            if (creates)
                (void)replace_file(runtime + owner_file,
                                   to_canonical({{"format", owner_format}, {"server", server}}));
            return runtime;
        }
    }
    if (owner == server)
        return runtime;
    std::string path = runtime + others_folder + "/" + folder_name(server);
    if (creates && !exists(path))
        make_runtime_directory(runtime, path, has_unnamed_sets_of(store, server));
    return path;
}

} // namespace

void use_runtime_of(Store& store, const std::string& server) {
    store.use_runtime_directory([&](const std::string& first, bool makes) {
        return server_runtime_directory(store, first, server, makes);
    });
}

} // namespace qrtln
