#include "fuzz/support/target.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fuzz {

namespace {

// What the process has worked, in user and system time: on a busy machine a clock would measure the
// others as well. libFuzzer's own limit finds what waits.
double processSeconds() {
    struct timespec time {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double s_slowest = 0; // seconds
std::size_t s_slowestSize = 0;
bool s_isRunning = false;
std::string s_artifactPrefix;

void printSlowest() {
    std::fprintf(stderr, "slowest input: %.1f ms (%zu bytes)\n", s_slowest * 1e3, s_slowestSize);
}

struct OwnFolder {
    OwnFolder() {
        const char* parent = std::getenv("TMPDIR");
        path = std::string(parent != nullptr ? parent : "/tmp") + "/qrtln-fuzz_XXXXXX";
        require(mkdtemp(path.data()) != nullptr, "no folder for temporary files (TMPDIR)");
        // One spelling alone: the checks compare paths as texts.
        path = std::filesystem::canonical(path);
        require(chdir(path.c_str()) == 0, "the folder for temporary files cannot be entered");
    }
    ~OwnFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;
    std::string path;
};

} // namespace

bool isRunning() {
    return s_isRunning;
}

const std::string& artifactPrefix() {
    return s_artifactPrefix;
}

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "REQUIREMENT NOT MET: %s\n", what);
        std::abort();
    }
}

const std::string& folder() {
    static const OwnFolder own;
    return own.path;
}

std::string expanded(std::string_view text) {
    constexpr char kRepeat = 0x1E;
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string_view rest = text.substr(i);
        if (rest[0] == kRepeat && rest.size() > 2) {
            result.append(8U * static_cast<unsigned char>(rest[1]),
                          rest[2] == '\0' ? '0' : rest[2]);
            i += 2;
        } else if (rest.starts_with("$B")) {
            result += folder();
            ++i;
        } else if (rest.starts_with("$D") || rest.starts_with("$T")) {
            result += folder() + (rest[1] == 'D' ? "/data" : "/tmp");
            ++i;
        } else {
            result += rest[0] == '\0' ? '0' : rest[0];
        }
    }
    return result;
}

std::vector<std::string_view> split(std::string_view text, char delimiter) {
    std::vector<std::string_view> parts;
    for (std::size_t end; (end = text.find(delimiter)) != std::string_view::npos;) {
        parts.push_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    parts.push_back(text);
    return parts;
}

void writeFile(const std::string& path, std::string_view content) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool written = file >= 0 && write(file, content.data(), content.size()) ==
                                          static_cast<ssize_t>(content.size());
    require(written && close(file) == 0, "a file of the target cannot be written");
}

std::string readFile(const std::string& path) {
    std::string content;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return content;
    }
    char buffer[65536];
    for (ssize_t got; (got = read(file, buffer, sizeof buffer)) > 0;) {
        content.append(buffer, static_cast<std::size_t>(got));
    }
    close(file);
    return content;
}

} // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    constexpr std::string_view kOption = "-artifact_prefix=";
    for (int i = 1; i < *argc; ++i) {
        const std::string_view argument = (*argv)[i];
        if (argument.starts_with(kOption)) {
            fuzz::s_artifactPrefix = argument.substr(kOption.size());
        }
    }
    fuzz::folder(); // made before the handler is registered, so removed after it
    std::atexit(fuzz::printSlowest);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const double start = fuzz::processSeconds();
    fuzz::s_isRunning = true;
    fuzz::runInput({reinterpret_cast<const char*>(data), size});
    fuzz::s_isRunning = false;
    const double taken = fuzz::processSeconds() - start;
    fuzz::require(taken <= 1.0, "an input takes no longer than a second");
    if (taken > fuzz::s_slowest) {
        fuzz::s_slowest = taken;
        fuzz::s_slowestSize = size;
    }
    return 0;
}
