#include "client/module/own_process.h"

#include "client/base/child_program.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/module/environment.h"
#include "client/module/told_lines.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace qrtln {

namespace {

// Throws ClientError.
std::pair<FileDescriptor, FileDescriptor> make_socket_pair() {
    std::array<int, 2> sockets{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0)
        throw ClientError(ExitCode::failed,
                          "cannot create a socket pair: " + system_error_text(errno));
    return {FileDescriptor(sockets[0]), FileDescriptor(sockets[1])};
}

// Throws ClientError.
FileDescriptor make_lines() {
    try {
        return make_line_memory();
    } catch (const std::system_error& failure) {
        throw ClientError(ExitCode::failed,
                          std::string("cannot make memory for the module's process: ") +
                              failure.what());
    }
}

[[noreturn]] void start_anew(const OwnProcessStart& start, int socket, int lines, char** words,
                             char** environment, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, start.death_signal);
    if (::getppid() != parent) // it died before the line above
        ::_exit(1);
    if (start.output >= 0) {
        ::dup2(start.output, STDOUT_FILENO);
        ::dup2(start.output, STDERR_FILENO);
    }
    std::signal(SIGUSR1, SIG_IGN); // who asks for the progress may ask all processes of a service
    ::fcntl(socket, F_SETFD, 0);
    if (lines >= 0)
        ::fcntl(lines, F_SETFD, 0);
    ::execve("/proc/self/exe", words, environment);
    start.cannot_start(socket, "its process does not start: execve of /proc/self/exe: " +
                                   system_error_text(errno));
    ::_exit(1);
}

} // namespace

OwnProcess start_own_process(const OwnProcessStart& start) {
    OwnProcess process;
    FileDescriptor its_socket;
    std::tie(process.socket, its_socket) = make_socket_pair();
    if (start.tells_lines)
        process.lines = make_lines();
    std::vector<std::string> words = {"qrtln", start.word, std::to_string(its_socket.get())};
    if (start.tells_lines)
        words.push_back(std::to_string(process.lines.get()));
    std::vector<std::string> environment = environment_with(start.environment);
    std::vector<char*> arguments = pointers_to(words);
    std::vector<char*> variables = pointers_to(environment);
    std::fflush(nullptr);
    const pid_t own_pid = ::getpid();
    {
        InterruptsBlocked blocked;
        process.pid = ::fork();
        if (process.pid == 0)
            start_anew(start, its_socket.get(), process.lines.get(), arguments.data(),
                       variables.data(), own_pid);
    }
    if (process.pid < 0)
        throw ClientError(ExitCode::failed, "cannot start a process for the server's library: " +
                                                system_error_text(errno));
    return process;
}

bool is_own_process(const char* word, int argc, char** argv) {
    return argc > 1 && std::string_view(argv[1]) == word;
}

namespace {

// A descriptor's number; -1 if it is none that a process passes on.
int descriptor_of(std::string_view word) {
    int fd = -1;
    auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), fd);
    return error == std::errc() && end == word.data() + word.size() && fd > 2 ? fd : -1;
}

bool is_made_by_parent(int socket) {
    ucred maker{};
    socklen_t size = sizeof maker;
    return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0 &&
           maker.pid == ::getppid();
}

} // namespace

int inherited_socket(int argc, char** argv, int* lines) {
    int socket = -1;
    if (argc == (lines != nullptr ? 4 : 3))
        socket = descriptor_of(argv[2]);
    if (lines != nullptr && socket >= 0)
        *lines = descriptor_of(argv[3]);
    if (!is_made_by_parent(socket) || (lines != nullptr && !is_line_memory(*lines))) {
        print_error(std::string(argv[1]) +
                        " is how qrtln starts a process for the server's library, no command",
                    "`qrtln --help` lists the commands");
        return -1;
    }
    return socket;
}

void close_on_exec() {
    for (const std::string& name :
         names_in_folder("/proc/self/fd").value_or(std::vector<std::string>())) {
        int fd = -1;
        std::from_chars(name.data(), name.data() + name.size(), fd);
        if (fd > 2)
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

void redirect_standard_streams() {
    int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0)
        ::dup2(null, STDIN_FILENO);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

void write_user(FrameWriter& frame, const std::optional<ServerUser>& user) {
    frame.number(user ? 1 : 0);
    if (user)
        frame.text(std::to_string(user->uid))
            .text(std::to_string(user->gid))
            .text(user->name)
            .text(user->home)
            .number(user->has_entry ? 1 : 0);
}

std::optional<ServerUser> read_user(FrameReader& frame) {
    if (frame.number() == 0)
        return std::nullopt;
    ServerUser user;
    user.uid = static_cast<uid_t>(std::stoul(frame.text()));
    user.gid = static_cast<gid_t>(std::stoul(frame.text()));
    user.name = frame.text();
    user.home = frame.text();
    user.has_entry = frame.number() != 0;
    return user;
}

} // namespace qrtln
