#include "tests/support/program.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace qrtln::test {

namespace {

std::vector<char*> pointers_to(Words& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

Words changed_environment(const Environment& changes) {
    Words variables;
    for (char** variable = ::environ; *variable != nullptr; ++variable)
        if (!changes.contains(std::string(*variable, std::strcspn(*variable, "="))))
            variables.emplace_back(*variable);
    for (const auto& [name, value] : changes)
        if (!value.empty())
            variables.push_back(name + "=" + value);
    return variables;
}

} // namespace

int exit_code_of(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Program::Program(Words words, const Environment& environment, void (*begin)()) {
    Words variables = changed_environment(environment);
    const std::vector<char*> arguments = pointers_to(words), values = pointers_to(variables);
    int streams[2];
    for (int& stream : streams)
        stream = ::open(m_files.file(&stream == streams ? "output" : "errors").c_str(),
                        O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    // To copy the pages of this process would take longer than the program.
    m_pid = ::vfork();
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(streams[0], STDOUT_FILENO);
        ::dup2(streams[1], STDERR_FILENO);
        if (begin != nullptr)
            begin();
        ::execve(arguments[0], arguments.data(), values.data());
        ::_exit(127);
    }
    for (int stream : streams)
        ::close(stream);
    if (m_pid < 0)
        throw std::system_error(errno, std::generic_category(), "vfork");
}

Program::~Program() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

bool Program::ended() const {
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == m_pid;
}

Outcome Program::printed(int exit_code) const {
    return {exit_code, m_files.read("output"), m_files.read("errors")};
}

Outcome Program::wait() {
    int status = 0;
    if (::waitpid(m_pid, &status, 0) != m_pid)
        throw std::system_error(errno, std::generic_category(), "waitpid");
    waited();
    return printed(exit_code_of(status));
}

} // namespace qrtln::test
