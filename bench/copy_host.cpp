// Has the module copy one database as a client would, and prints the seconds of each PrepareItem.
//
//   copy_host MODULE NOTES_INI TMP_DIR DATABASE
//
// REQUIRES: the server's library is found by Notes_ExecDirectory.
#include "qrt_lotus_notes/db_interface.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <string>

namespace {

template <typename Function>
void find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
}

constexpr std::size_t path_size = 1028;

} // namespace

int main(int argc, char** argv) {
    void* library = argc == 5 ? dlopen(argv[1], RTLD_NOW) : nullptr;
    if (library == nullptr) {
        std::fprintf(stderr, "usage: copy_host MODULE NOTES_INI TMP_DIR DATABASE\n");
        return 2;
    }
    decltype(&DB_InitOperation) init = nullptr;
    decltype(&DB_GetItem) get_item = nullptr;
    decltype(&DB_PrepareItem) prepare = nullptr;
    decltype(&DB_ItemFinishStatus) finish = nullptr;
    decltype(&DB_CloseOperation) close = nullptr;
    decltype(&DB_GetError) get_error = nullptr;
    find(library, "DB_InitOperation", init);
    find(library, "DB_GetItem", get_item);
    find(library, "DB_PrepareItem", prepare);
    find(library, "DB_ItemFinishStatus", finish);
    find(library, "DB_CloseOperation", close);
    find(library, "DB_GetError", get_error);

    std::string ini = std::string("NOTESINI=") + argv[2];
    std::string tmp = std::string("TMP_DIR=") + argv[3];
    std::string database = std::string("DATABASE=QRTLN:") + argv[4];
    char* variables[] = {ini.data(), tmp.data(), database.data(), nullptr};
    if (init(DB_TYPE_BCK, DB_LEVEL_COPY, variables, nullptr) != DB_NUM_I_OK) {
        TYPE_DB_Error error{};
        get_error(&error);
        std::fprintf(stderr, "copy_host: the operation does not start: %s\n", error.szDBErrorMsg);
        return 1;
    }
    bool copied = false;
    char directory[path_size];
    char original[path_size];
    char name[path_size];
    char copy[path_size];
    while (get_item(directory, original, name) == DB_NUM_I_OK) {
        const bool wanted = std::strcmp(name, argv[4]) == 0;
        if (wanted) {
            const auto begun = std::chrono::steady_clock::now();
            copied = prepare(name, copy) == DB_NUM_I_OK;
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
            std::printf("%.6f\n", taken.count());
        }
        finish(wanted && copied ? DB_ITEM_SUCCESS : DB_ITEM_EXCLUDED);
    }
    char status[] = "STATUS=0";
    char* ending[] = {status, nullptr};
    return close(ending) == DB_NUM_I_OK && copied ? 0 : 1;
}
