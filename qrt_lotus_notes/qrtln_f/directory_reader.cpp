#include "qrt_lotus_notes/qrtln_f/directory_reader.h"

#include <cstring>

#include "qrt_lotus_notes/qrtln_u/messages.h"

bool isDotEntry(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

void tellLeftOut(const char* cpFunction, const char* cpPath, int error) {
    if (error != ENOENT && error != ENOTDIR) {
        DB_LogExt("%s(): directory [%s] cannot be read, its files are left out (%d): %s",
                  cpFunction, cpPath, error, std::strerror(error));
    }
}

void tellNotReadToEnd(const char* cpFunction, const char* cpPath, int error) {
    if (error != 0) {
        DB_LogExt("%s(): directory [%s] could not be read to its end (%d): %s", cpFunction, cpPath,
                  error, std::strerror(error));
    }
}
