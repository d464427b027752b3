// What a backup client gives to the module, in a library of its own: a test case loads it, or plays
// a client without it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" [[gnu::visibility("default")]] void resolve_path(char* path) {
    constexpr char prefix[] = "gv_rw_times:";
    const char* directory = std::getenv("QRTLN_TEST_RUN_DIRECTORY");
    if (directory != nullptr && std::strncmp(path, prefix, sizeof prefix - 1) == 0) {
        const std::string rest = path + sizeof prefix - 1;
        std::snprintf(path, 1028, "%s/%s", directory, rest.c_str());
    }
}
