#include "fuzz/support/confinement.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <vector>

#include "fuzz/support/target.h"

namespace fuzz {

namespace {

bool s_refusedChange = false;
ChangeObserver s_observer = nullptr;
std::vector<FILE*> s_streams;

bool isBelowFolder(std::string_view path) {
    return path.starts_with(folder()) &&
           (path.size() == folder().size() || path[folder().size()] == '/');
}

// libFuzzer's own calls come through the wrappers as well: between two inputs, and when it writes
// the input that failed while that still runs.
bool isForLibFuzzer(const char* path) {
    return !isRunning() || (!artifactPrefix().empty() && path != nullptr &&
                            std::string_view(path).starts_with(artifactPrefix()));
}

bool allowsRead(const char* path) {
    if (isForLibFuzzer(path) || (path != nullptr && isInside(path))) {
        return true;
    }
    errno = EACCES;
    return false;
}

bool allowsChange(const char* path) {
    if (isForLibFuzzer(path)) {
        return true;
    }
    if (!allowsRead(path)) {
        s_refusedChange = true;
        return false;
    }
    if (s_observer != nullptr) {
        const int error = errno;
        s_observer(path);
        errno = error;
    }
    return true;
}

} // namespace

bool isInside(std::string_view path) {
    if (path.find("..") == std::string_view::npos) {
        return path.empty() || path[0] != '/' || isBelowFolder(path);
    }
    const std::filesystem::path whole = std::filesystem::path(folder()) / path;
    return isBelowFolder(whole.lexically_normal().native());
}

bool isTame(std::string_view text) {
    if (text.find("..") != std::string_view::npos) {
        return false;
    }
    for (std::size_t at = text.find('/'); at != std::string_view::npos; at = text.find('/', at)) {
        // Behind a character of a name the path goes on; else one begins here.
        const bool isContinued =
            at > 0 && (std::isalnum(static_cast<unsigned char>(text[at - 1])) != 0 ||
                       std::strchr("._*?]-/", text[at - 1]) != nullptr);
        const bool isOwn = isBelowFolder(text.substr(at));
        if (!isContinued && !isOwn) {
            return false;
        }
        at += isOwn ? folder().size() : 1;
    }
    return true;
}

void observeChanges(ChangeObserver observer) {
    s_observer = observer;
}

void forgetRefusals() {
    s_refusedChange = false;
}

bool refusedChange() {
    return s_refusedChange;
}

int closeLeftStreams() {
    const auto count = static_cast<int>(s_streams.size());
    for (FILE* stream : s_streams) {
        std::fclose(stream);
    }
    s_streams.clear();
    return count;
}

} // namespace fuzz

extern "C" {

// The names that the linker gives to the functions behind the wrappers, and to the wrappers.
// NOLINTBEGIN(bugprone-reserved-identifier)
FILE* __real_fopen(const char* path, const char* mode);
int __real_fclose(FILE* stream);
DIR* __real_opendir(const char* path);
int __real_open(const char* path, int flags, ...);
int __real_mkdir(const char* path, mode_t mode);
int __real_chmod(const char* path, mode_t mode);
int __real_remove(const char* path);
int __real_rename(const char* from, const char* to);

FILE* __wrap_fopen(const char* path, const char* mode) {
    const bool bChanges = std::strpbrk(mode, "wa+") != nullptr;
    if (!(bChanges ? fuzz::allowsChange(path) : fuzz::allowsRead(path))) {
        return nullptr;
    }
    FILE* stream = __real_fopen(path, mode);
    if (stream != nullptr && fuzz::isRunning()) {
        fuzz::s_streams.push_back(stream);
    }
    return stream;
}

int __wrap_fclose(FILE* stream) {
    fuzz::s_streams.erase(std::remove(fuzz::s_streams.begin(), fuzz::s_streams.end(), stream),
                          fuzz::s_streams.end());
    return __real_fclose(stream);
}

DIR* __wrap_opendir(const char* path) {
    return fuzz::allowsRead(path) ? __real_opendir(path) : nullptr;
}

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool bChanges = (flags & (O_CREAT | O_WRONLY | O_RDWR)) != 0;
    if (!(bChanges ? fuzz::allowsChange(path) : fuzz::allowsRead(path))) {
        return -1;
    }
    return __real_open(path, flags, mode);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    return fuzz::allowsChange(path) ? __real_mkdir(path, mode) : -1;
}

int __wrap_chmod(const char* path, mode_t mode) {
    return fuzz::allowsChange(path) ? __real_chmod(path, mode) : -1;
}

int __wrap_remove(const char* path) {
    return fuzz::allowsChange(path) ? __real_remove(path) : -1;
}

int __wrap_rename(const char* from, const char* to) {
    return fuzz::allowsChange(from) && fuzz::allowsChange(to) ? __real_rename(from, to) : -1;
}
// NOLINTEND(bugprone-reserved-identifier)
}
