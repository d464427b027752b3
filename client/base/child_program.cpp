#include "client/base/child_program.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qrtln {

namespace {

constexpr std::size_t most_output = std::size_t{1} << 20;

struct Pipe {
    FileDescriptor from;
    FileDescriptor to;
};

Pipe make_pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw ClientError(ExitCode::failed, "cannot make a pipe: " + system_error_text(errno));
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::vector<char*> environment_without(const std::string& prefix) {
    std::vector<char*> variables;
    for (char** variable = environ; *variable != nullptr; ++variable)
        if (prefix.empty() || !std::string_view(*variable).starts_with(prefix))
            variables.push_back(*variable);
    variables.push_back(nullptr);
    return variables;
}

pid_t spawn(const std::string& file, std::vector<std::string>& words, std::vector<char*> variables,
            const Pipe& output, const Pipe& errors) {
    const std::vector<char*> arguments = pointers_to(words);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, output.to.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errors.to.get(), STDERR_FILENO);
    pid_t child = -1;
    const int error =
        ::posix_spawn(&child, file.c_str(), &actions, nullptr, arguments.data(), variables.data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw ClientError(ExitCode::failed, fmt::format("cannot start {}: {}", for_terminal(file),
                                                        system_error_text(error)));
    return child;
}

// Takes what there is to read; false at its end.
bool take_output(FileDescriptor& from, std::string& text) {
    std::array<char, 4096> bytes{};
    const ssize_t got = ::read(from.get(), bytes.data(), bytes.size());
    if (got < 0 && errno == EINTR)
        return true;
    if (got <= 0)
        return false;
    text.append(bytes.data(), std::min(static_cast<std::size_t>(got), most_output - text.size()));
    return true;
}

} // namespace

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

ProgramResult run_program(const std::string& file, std::vector<std::string> words,
                          const std::string& left_out) {
    Pipe output = make_pipe();
    Pipe errors = make_pipe();
    const pid_t child = spawn(file, words, environment_without(left_out), output, errors);
    output.to.reset();
    errors.to.reset();
    ProgramResult result;
    bool passed_on = false;
    while (output.from || errors.from) {
        if (interrupt_signal() != 0 && !std::exchange(passed_on, true))
            ::kill(child, interrupt_signal());
        pollfd ready[3] = {{output.from.get(), POLLIN, 0},
                           {errors.from.get(), POLLIN, 0},
                           {passed_on ? -1 : interrupt_descriptor(), POLLIN, 0}};
        if (::poll(ready, std::size(ready), -1) < 0)
            continue;
        if (ready[0].revents != 0 && !take_output(output.from, result.output))
            output.from.reset();
        if (ready[1].revents != 0 && !take_output(errors.from, result.errors))
            errors.from.reset();
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.exit_code = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    return result;
}

} // namespace qrtln
