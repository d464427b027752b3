#include "fuzz/support.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "common/bounded_text.h"

namespace fuzz {

std::function<void(const std::string&)> onChange;

namespace {

bool s_isRunning = false;
bool s_refusedChange = false;
std::vector<FILE*> s_streams;

// In processor time: on a busy machine a clock would measure the others as well.
struct Slowest {
    double seconds = 0;
    ~Slowest() { std::fprintf(stderr, "slowest input: %.1f ms\n", seconds * 1e3); }
} s_slowest;

// libFuzzer's own calls come through the wrappers as well: between two inputs, and when it writes
// the input that failed while that still runs.
bool isForLibFuzzer(const char* path) {
    static const char* const findings = std::getenv("FUZZ_FINDINGS");
    return !s_isRunning ||
           (findings != nullptr && path != nullptr && std::string_view(path).starts_with(findings));
}

bool allows(const char* path, bool isChange) {
    if (isForLibFuzzer(path)) {
        return true;
    }
    if (path == nullptr || !isInside(path)) {
        s_refusedChange = s_refusedChange || isChange;
        errno = EACCES;
        return false;
    }
    if (isChange && onChange) {
        onChange(path);
    }
    return true;
}

} // namespace

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "REQUIREMENT NOT MET: %s\n", what);
        std::abort();
    }
}

const TemporaryFolder& files() {
    static const TemporaryFolder own;
    return own;
}

const std::string& folder() {
    static const std::string path = files().path();
    // One spelling alone: the checks compare paths as texts.
    static const bool isEntered = std::filesystem::canonical(path) == path &&
                                  chdir(path.c_str()) == 0 &&
                                  setenv("TMPDIR", path.c_str(), 1) == 0;
    require(isEntered, "the folder for temporary files (TMPDIR) has one name and can be entered");
    return path;
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
        } else if (rest.starts_with("$B") || rest.starts_with("$D") || rest.starts_with("$T")) {
            result += folder() + (rest[1] == 'B' ? "" : rest[1] == 'D' ? "/data" : "/tmp");
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

bool isInside(std::string_view path) {
    const std::string whole = (std::filesystem::path(folder()) / path).lexically_normal();
    return whole == folder() || whole.starts_with(folder() + "/");
}

bool isTame(std::string_view text) {
    // A "/" behind a character of a name goes on with a path; else one begins there.
    static const std::regex outside(R"(\.\.|(^|[^\w.*?\]/-])/(?!)" + folder().substr(1) + "(/|$))");
    return !std::regex_search(text.begin(), text.end(), outside);
}

bool refusedChange() {
    return s_refusedChange;
}

int closeLeftStreams() {
    const auto count = static_cast<int>(s_streams.size());
    while (!s_streams.empty()) {
        std::fclose(s_streams.back()); // the wrapper takes it from the list
    }
    return count;
}

void checkMessage(const char* text) {
    require(text != nullptr && std::strlen(text) < kMessageSize, "a message of at most 1511 bytes");
}

void clearRecord() {
    g_sQRTLN_Global = QRTLN_Global{};
    g_sQRTLN_Global.vpTraceFunc = &checkMessage;
    g_sQRTLN_Global.vpLogFunc = &checkMessage;
}

void checkRecord() {
    const QRTLN_Global& global = g_sQRTLN_Global;
    require(areTerminated(global.szDB_User, global.szRelocationDir, global.szTmpDir,
                          global.szDB_Notesini, global.szNotesDataDirectory,
                          global.szNotesBinDirectory, global.szDB_SinceTime, global.szDBErrorType,
                          global.szDBErrorMsg, global.szPointInTime, szCurrentOriginalDirectory),
            "every text ends within its buffer");
    for (const BOOL value :
         {global.bNotesInitialized, global.bWithArchiveLogs, global.bNewDbiid, global.bRecovery,
          global.bActivate, global.bPlainRestore, global.bTerminate}) {
        require(value == FALSE || value == TRUE, "every switch is a truth value");
    }
}

void checkQueue(const LIST_INFO* queue) {
    require(queue != nullptr, "there is a queue");
    int count = 0;
    const LIST_ITEM* last = nullptr;
    for (const LIST_ITEM* item = queue->spFirstItem; item != nullptr; item = item->spNextItem) {
        ++count;
        last = item;
        const auto size = static_cast<std::size_t>(item->iDataSize);
        const void* end = std::memchr(item->vpData, '\0', size);
        require(size <= kPathSize && end == static_cast<const char*>(item->vpData) + size - 1,
                "a record is a path with its NUL");
    }
    require(count == queue->iItemCount && last == queue->spLastItem, "the queue is whole");
}

void prepareDataTree() {
    if (files().exists("data")) {
        return;
    }
    files().makeDirectory("data/empty");
    for (const char* file :
         {"names.nsf", "log.NSF", "mail.box", "pubnames.ntf", "notes.ini", ".hidden.nsf",
          "mail/anna.nsf", "mail/b c.nsf", "mail/old.ns4", "mail/archive/a.nsf", "mail[1]/x.nsf"}) {
        files().write(std::string("data/") + file, "content");
    }
    std::filesystem::create_directory_symlink("..", files().file("data/mail/up"));
}

} // namespace fuzz

extern "C" {

// The host's: where its files of that kind are.
void resolve_path(char* path) {
    constexpr std::string_view kPrefix = "gv_rw_times:";
    const std::string text = path;
    if (text.starts_with(kPrefix)) {
        copyText(path, kPathSize, fuzz::files().file("run/" + text.substr(kPrefix.size())).c_str());
    }
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::clock_t start = std::clock();
    fuzz::folder();
    fuzz::s_refusedChange = false;
    fuzz::s_isRunning = true;
    fuzz::runInput({reinterpret_cast<const char*>(data), size});
    fuzz::s_isRunning = false;
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    fuzz::require(seconds <= 1.0, "an input takes no longer than a second");
    fuzz::s_slowest.seconds = std::max(fuzz::s_slowest.seconds, seconds);
    return 0;
}

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
    FILE* stream = nullptr;
    if (fuzz::allows(path, std::strpbrk(mode, "wa+") != nullptr)) {
        stream = __real_fopen(path, mode);
    }
    if (stream != nullptr && fuzz::s_isRunning) {
        fuzz::s_streams.push_back(stream);
    }
    return stream;
}

int __wrap_fclose(FILE* stream) {
    std::erase(fuzz::s_streams, stream);
    return __real_fclose(stream);
}

DIR* __wrap_opendir(const char* path) {
    return fuzz::allows(path, false) ? __real_opendir(path) : nullptr;
}

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool isChange = (flags & (O_CREAT | O_WRONLY | O_RDWR)) != 0;
    return fuzz::allows(path, isChange) ? __real_open(path, flags, mode) : -1;
}

int __wrap_mkdir(const char* path, mode_t mode) {
    return fuzz::allows(path, true) ? __real_mkdir(path, mode) : -1;
}

int __wrap_chmod(const char* path, mode_t mode) {
    return fuzz::allows(path, true) ? __real_chmod(path, mode) : -1;
}

int __wrap_remove(const char* path) {
    return fuzz::allows(path, true) ? __real_remove(path) : -1;
}

int __wrap_rename(const char* from, const char* to) {
    return fuzz::allows(from, true) && fuzz::allows(to, true) ? __real_rename(from, to) : -1;
}
// NOLINTEND(bugprone-reserved-identifier)
}
