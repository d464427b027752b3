#include "notes_simulator/base/files.h"

#include "notes_simulator/base/status.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;

namespace notes_sim {

bool readingDenied(const fs::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return errno == EACCES;
    }
    // The bits count for the superuser too, so that a test can deny reading whoever runs it.
    return (info.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0 || ::access(file.c_str(), R_OK) != 0;
}

void replaceFile(const fs::path& file, const std::string& content) {
    const fs::path fresh = file.string() + ".new." + std::to_string(::getpid());
    {
        std::ofstream stream(fresh, std::ios::binary | std::ios::trunc);
        stream << content;
        stream.close();
        if (!stream) {
            const int error = errno;
            std::error_code ignored; // the first failure is the one to report
            fs::remove(fresh, ignored);
            throwErrno(error, "writing " + file.string());
        }
    }
    fs::rename(fresh, file);
}

} // namespace notes_sim
