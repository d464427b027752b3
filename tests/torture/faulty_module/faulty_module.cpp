// The database module with a planted defect, for a harness that must find it. Everything but two
// entry points is that of the real module, which this library is linked with.
//
//   QRTLN_PLANT=marking   the logs are marked as archived when the last item was handed out, before
//                         the client has stored its set
//   QRTLN_PLANT=index     the index is edited in place
#include "qrt_lotus_notes/db_interface.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>

extern "C" void resolve_path(char* path) __attribute__((weak));

namespace {

template <typename Function>
Function* real(Function* /*type*/, const char* name) {
    static void* module = ::dlopen(QRTLN_MODULE, RTLD_NOW | RTLD_NOLOAD);
    return reinterpret_cast<Function*>(::dlsym(module, name));
}

int close_operation(char** variables) {
    return real(&DB_CloseOperation, "DB_CloseOperation")(variables);
}

bool plants(const char* defect) {
    const char* planted = std::getenv("QRTLN_PLANT");
    return planted != nullptr && std::strcmp(planted, defect) == 0;
}

std::optional<int>& early_close() {
    static std::optional<int> status;
    return status;
}

std::string index_file() {
    char index[1028] = "gv_rw_times:qrtln_DBIID.ini";
    resolve_path(index);
    return index;
}

std::string working_copy() {
    return index_file() + "." + std::to_string(::getpid());
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& bytes) {
    ::unlink(path.c_str());
    if (!bytes.empty())
        std::ofstream(path, std::ios::binary) << bytes;
}

// The logs are marked, and the index is as before: the client looks at that.
void close_early() {
    std::string index = read_file(index_file());
    std::string changed = read_file(working_copy());
    char success[] = "STATUS=0";
    char* variables[] = {success, nullptr};
    early_close() = close_operation(variables);
    write_file(index_file(), index);
    write_file(working_copy(), changed);
}

int close_again(bool good) {
    if (good && ::access(working_copy().c_str(), F_OK) == 0)
        ::rename(working_copy().c_str(), index_file().c_str());
    ::unlink(working_copy().c_str());
    return *early_close();
}

void edit_index_in_place() {
    std::string index = index_file();
    std::string bytes = read_file(working_copy());
    int file = ::open(index.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (std::size_t begin : {std::size_t{0}, bytes.size() / 2}) {
        std::string half = bytes.substr(begin, begin == 0 ? bytes.size() / 2 : std::string::npos);
        (void)!::write(file, half.data(), half.size());
    }
    ::close(file);
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] int DB_GetItem(char* backup, char* original, char* name) {
    int status = real(&DB_GetItem, "DB_GetItem")(backup, original, name);
    if (status == DB_NUM_I_COMPLETE && plants("marking"))
        close_early();
    return status;
}

[[gnu::visibility("default")]] int DB_CloseOperation(char** variables) {
    if (early_close())
        return close_again(std::strcmp(variables[0], "STATUS=0") == 0);
    if (plants("index") && std::strcmp(variables[0], "STATUS=0") == 0)
        edit_index_in_place();
    return close_operation(variables);
}
}
