#include "tests/torture/traced_run.h"

#include "tests/torture/bytes_of.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <set>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace qrtln::torture {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool is_flush(std::uint64_t call) {
    return call == SYS_fsync || call == SYS_fdatasync;
}

bool changes_files(const __ptrace_syscall_info& info) {
    static const std::set<std::uint64_t> always = {
        SYS_copy_file_range, SYS_sendfile, SYS_ftruncate, SYS_truncate, SYS_fsync,   SYS_fdatasync,
        SYS_unlinkat,        SYS_renameat, SYS_renameat2, SYS_linkat,   SYS_mkdirat,
#ifdef SYS_unlink
        SYS_unlink,          SYS_rmdir,    SYS_rename,    SYS_link,     SYS_mkdir,
#endif
        SYS_fchmod,          SYS_fchown,   SYS_utimensat};
    constexpr std::uint64_t creates = O_CREAT | O_TRUNC;
    switch (info.entry.nr) {
    case SYS_open:
        return (info.entry.args[1] & creates) != 0;
    case SYS_openat:
        return (info.entry.args[2] & creates) != 0;
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
        return info.entry.args[0] > STDERR_FILENO;
    default:
        return always.contains(info.entry.nr);
    }
}

// Follows one program until all of its processes are gone, or let go.
class Tracer {
  public:
    Tracer(pid_t client, Kill kill, CallObserver* observer)
        : m_client(client), m_kill(kill), m_observer(observer), m_processes{client} {}
    // Returns the status of the client.
    int follow();
    std::size_t calls() const { return m_calls; }
    bool killed() const { return m_killed; }

  private:
    void attach();
    void meet(pid_t thread, int status);
    void meet_call(pid_t thread);
    void enter(pid_t thread, const __ptrace_syscall_info& info);
    void strike();
    void go_on(pid_t thread, int signal);

    pid_t m_client;
    Kill m_kill;
    CallObserver* m_observer;
    std::size_t m_calls = 0;
    bool m_killed = false;
    std::map<pid_t, std::string> m_flushes; // under way, by thread
    std::set<pid_t> m_processes;            // that live, threads of them not among them
    std::set<pid_t> m_threads;              // of all processes, that were met
    bool m_let_go = false;
};

void Tracer::attach() {
    int status = 0;
    if (::waitpid(m_client, &status, 0) != m_client || !WIFSTOPPED(status))
        fail("the program did not stop to be traced");
    constexpr long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                             PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
    if (::ptrace(PTRACE_SETOPTIONS, m_client, nullptr, options) != 0)
        fail("ptrace");
    m_threads.insert(m_client);
    go_on(m_client, 0);
}

void Tracer::go_on(pid_t thread, int signal) {
    // A thread that was killed meanwhile is told of by waitpid.
    auto data = reinterpret_cast<void*>(static_cast<std::uintptr_t>(signal));
    ::ptrace(m_let_go ? PTRACE_DETACH : PTRACE_SYSCALL, thread, nullptr, data);
    if (m_let_go)
        m_threads.erase(thread);
}

void Tracer::strike() {
    m_killed = true;
    for (pid_t process : m_processes)
        if (m_kill.victim == Victim::everything ||
            (process == m_client) == (m_kill.victim == Victim::client))
            ::kill(process, SIGKILL);
    m_let_go = m_kill.victim == Victim::client;
}

void Tracer::meet(pid_t thread, int status) {
    constexpr int event_shift = 16;
    int signal = WSTOPSIG(status);
    if (m_threads.insert(thread).second && signal == SIGSTOP) {
        go_on(thread, 0); // a new process or thread begins with this stop
    } else if (int event = status >> event_shift; event != 0) {
        unsigned long child = 0;
        if (event != PTRACE_EVENT_CLONE &&
            ::ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &child) == 0)
            m_processes.insert(static_cast<pid_t>(child));
        go_on(thread, 0);
    } else if (signal == (SIGTRAP | 0x80)) {
        meet_call(thread);
        go_on(thread, 0);
    } else {
        go_on(thread, signal == SIGTRAP ? 0 : signal); // exec tells of itself by a SIGTRAP
    }
}

// A thread stops before a call and after it.
void Tracer::meet_call(pid_t thread) {
    __ptrace_syscall_info info{};
    auto size = reinterpret_cast<void*>(sizeof info);
    if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, size, &info) <= 0)
        return;
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY && changes_files(info))
        enter(thread, info);
    if (info.op == PTRACE_SYSCALL_INFO_EXIT)
        if (auto flush = m_flushes.extract(thread); flush && info.exit.is_error == 0)
            m_observer->flushed(flush.mapped());
}

void Tracer::enter(pid_t thread, const __ptrace_syscall_info& info) {
    ++m_calls;
    // With the module as the victim, there must be one.
    bool victim_lives = m_kill.victim != Victim::module_process || m_processes.size() > 1;
    if (!m_killed && m_kill.call != 0 && m_calls >= m_kill.call && victim_lives) {
        strike();
    } else if (m_observer != nullptr) {
        m_observer->before_call();
        if (is_flush(info.entry.nr))
            m_flushes[thread] =
                "/proc/" + std::to_string(thread) + "/fd/" + std::to_string(info.entry.args[0]);
    }
}

int Tracer::follow() {
    attach();
    int client_status = 0;
    for (;;) {
        int status = 0;
        pid_t thread = ::waitpid(-1, &status, __WALL);
        if (thread < 0 && errno == EINTR)
            continue;
        if (thread < 0)
            return client_status; // nobody is left
        if (WIFSTOPPED(status)) {
            meet(thread, status);
            continue;
        }
        m_threads.erase(thread);
        m_processes.erase(thread);
        if (thread == m_client)
            client_status = status;
    }
}

std::vector<pid_t> children_of(pid_t process) {
    std::string number = std::to_string(process);
    std::istringstream text(bytes_of("/proc/" + number + "/task/" + number + "/children"));
    return {std::istream_iterator<pid_t>(text), std::istream_iterator<pid_t>()};
}

// Kills what there is to kill, unless the program has ended.
bool kill_now(Started& program, Victim victim) {
    pid_t client = program.pid();
    ::setpgid(client, client); // it may not have come to it yet
    std::vector<pid_t> victims = {victim == Victim::client ? client : -client};
    if (victim == Victim::module_process)
        victims = children_of(client);
    if (program.ended() || victims.empty())
        return false;
    for (pid_t process : victims)
        ::kill(process, SIGKILL);
    return true;
}

} // namespace

Started::Started(const std::vector<std::string>& words, const Environment& environment,
                 const std::string& scratch, bool traced)
    : m_scratch(scratch) {
    std::vector<std::string> texts = words;
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid < 0)
        fail("fork");
    if (m_pid > 0)
        return;
    for (auto [name, stream] : {std::pair{"/output", 1}, std::pair{"/errors", 2}})
        ::dup2(::open((m_scratch + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), stream);
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    ::setpgid(0, 0);
    if (traced) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
    }
    ::execv(pointers[0], pointers.data());
    ::_exit(127);
}

Started::~Started() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

bool Started::ended() {
    if (m_pid > 0 && ::waitpid(m_pid, &m_status, WNOHANG) == m_pid)
        m_pid = -1;
    return m_pid < 0;
}

Run Started::finish(int status) {
    m_pid = -1;
    Run run;
    run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    run.output = bytes_of(m_scratch + "/output");
    run.errors = bytes_of(m_scratch + "/errors");
    return run;
}

Run Started::finish() {
    if (m_pid > 0 && ::waitpid(m_pid, &m_status, 0) != m_pid)
        fail("waitpid");
    return finish(m_status);
}

Run run_program(const std::vector<std::string>& words, const Environment& environment,
                const std::string& scratch, Kill kill, CallObserver* observer) {
    bool traced = kill.call != 0 || observer != nullptr;
    Started program(words, environment, scratch, traced);
    if (traced) {
        Tracer tracer(program.pid(), kill, observer);
        Run run = program.finish(tracer.follow());
        run.calls = tracer.calls();
        run.killed = tracer.killed();
        return run;
    }
    bool killed = false;
    if (kill.after.count() > 0) {
        std::this_thread::sleep_for(kill.after);
        killed = kill_now(program, kill.victim);
    }
    Run run = program.finish();
    run.killed = killed;
    return run;
}

} // namespace qrtln::torture
