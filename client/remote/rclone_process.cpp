#include "client/remote/rclone_process.h"

#include "client/base/child_program.h"
#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qrtln {

using namespace std::chrono_literals;

namespace {

constexpr std::string_view address_text = "Serving remote control on ";
constexpr auto longest_start = 30s;
constexpr auto longest_end = 5s;
constexpr const char* installation_hint =
    "stores elsewhere are reached through rclone: `apt install rclone`";

// What this process has, and besides the password, which no command line shows.
std::vector<std::string> environment_with(const std::string& user, const std::string& password) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable)
        if (!std::string_view(*variable).starts_with("RCLONE_RC_"))
            variables.emplace_back(*variable);
    variables.push_back("RCLONE_RC_USER=" + user);
    variables.push_back("RCLONE_RC_PASS=" + password);
    return variables;
}

} // namespace

std::string random_word() {
    std::array<char, 24> random{};
    if (::getentropy(random.data(), random.size()) != 0)
        throw ClientError(ExitCode::failed,
                          "the system gives no random bytes: " + system_error_text(errno));
    return to_hex(std::string_view(random.data(), random.size()));
}

RcloneProcess::RcloneProcess(const RcloneOptions& options) {
    start(options);
    try {
        wait_for_url();
    } catch (...) {
        kill();
        throw;
    }
}

RcloneProcess::~RcloneProcess() {
    if (m_process < 0)
        return;
    ::kill(m_process, SIGTERM);
    for (auto waited = 0ms; waited < longest_end; waited += looks_again) {
        if (::waitpid(m_process, nullptr, WNOHANG) == m_process)
            return;
        std::this_thread::sleep_for(looks_again);
    }
    kill();
}

void RcloneProcess::kill() {
    if (m_process < 0)
        return;
    ::kill(m_process, SIGKILL);
    while (::waitpid(m_process, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_process = -1;
}

void RcloneProcess::start(const RcloneOptions& options) {
    const std::string user = "qrtln";
    const std::string password = random_word();
    m_secret = user + ":" + password;
    m_messages = FileDescriptor(::memfd_create("rclone", MFD_CLOEXEC));
    if (!m_messages)
        throw ClientError(ExitCode::failed,
                          "cannot make memory for rclone: " + system_error_text(errno));
    // It tries again by itself what fails for a moment; what takes longer is tried again from here.
    std::vector<std::string> words = {options.program,
                                      "rcd",
                                      "--rc-addr=127.0.0.1:0",
                                      "--rc-serve",
                                      "--low-level-retries=3",
                                      "--contimeout=15s",
                                      "--timeout=60s",
                                      "--ask-password=false",
                                      "--cache-dir=/nonexistent",
                                      "--log-level=NOTICE"};
    if (!options.bandwidth.empty())
        words.push_back("--bwlimit=" + options.bandwidth);
    std::vector<std::string> variables = environment_with(user, password);
    const std::vector<char*> arguments = pointers_to(words);
    const std::vector<char*> environment = pointers_to(variables);
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw ClientError(ExitCode::failed, "cannot make a pipe: " + system_error_text(errno));
    const FileDescriptor problem_from(ends[0]);
    FileDescriptor problem_to(ends[1]);
    const pid_t parent = ::getpid();
    const InterruptsBlocked blocked;
    m_process = ::fork();
    if (m_process == 0) {
        // It ends with this process, and Ctrl-C is for this one to pass on.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (::getppid() == parent && nothing >= 0 && ::dup2(nothing, STDIN_FILENO) >= 0 &&
            ::dup2(nothing, STDOUT_FILENO) >= 0 && ::dup2(m_messages.get(), STDERR_FILENO) >= 0)
            ::execvpe(arguments[0], arguments.data(), environment.data());
        const int error = errno;
        (void)!::write(problem_to.get(), &error, sizeof error);
        ::_exit(1);
    }
    int error = m_process < 0 ? errno : 0;
    problem_to.reset();
    if (error == 0 && ::read(problem_from.get(), &error, sizeof error) != sizeof error)
        error = 0; // it runs
    if (error == 0)
        return;
    kill();
    throw ClientError(
        ExitCode::remote_failed,
        fmt::format("cannot start {}: {}", for_terminal(options.program), system_error_text(error)),
        error == ENOENT ? installation_hint : "");
}

std::string RcloneProcess::said() const {
    constexpr off_t most = 65536;
    struct stat status {};
    (void)::fstat(m_messages.get(), &status); // its place in the file is rclone's
    const off_t from = std::max<off_t>(status.st_size - most, 0);
    std::string text(static_cast<std::size_t>(status.st_size - from), '\0');
    const ssize_t got = ::pread(m_messages.get(), text.data(), text.size(), from);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

std::string RcloneProcess::last_words() const {
    const std::string text = said();
    const std::string_view all = trimmed(text, "\n");
    return std::string(all.substr(all.rfind('\n') + 1)); // npos + 1 is the beginning
}

void RcloneProcess::wait_for_url() {
    for (auto waited = 0ms; waited < longest_start; waited += looks_again) {
        const std::string text = said();
        if (const std::size_t at = text.find(address_text); at != std::string::npos) {
            const std::size_t begin = at + address_text.size();
            const std::size_t end = text.find_first_of(" \n", begin);
            if (end != std::string::npos) {
                m_url = text.substr(begin, end - begin);
                return;
            }
        }
        require_running();
        throw_if_interrupted();
        std::this_thread::sleep_for(looks_again);
    }
    throw ClientError(ExitCode::remote_failed, "rclone does not say where it can be spoken to: " +
                                                   for_terminal(last_words()));
}

void RcloneProcess::require_running() {
    if (m_process >= 0 && ::waitpid(m_process, nullptr, WNOHANG) == 0)
        return;
    m_process = -1;
    const std::string words = last_words();
    throw ClientError(ExitCode::remote_failed,
                      words.empty() ? "rclone has ended"
                                    : "rclone has ended: " + for_terminal(words),
                      "`rclone version` and `rclone config` tell whether it works");
}

} // namespace qrtln
