#include "tests/torture/traced_run.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <sched.h>
#include <set>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
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

// Keeps this process, and those that it starts meanwhile, on the processor where it is: a tracer
// and what it traces never run at the same time, and to wake another processor at each call costs
// most of a run.
class OneProcessor {
  public:
    OneProcessor() {
        cpu_set_t here;
        CPU_ZERO(&here);
        CPU_SET(::sched_getcpu(), &here);
        m_changed = ::sched_getaffinity(0, sizeof m_before, &m_before) == 0 &&
                    ::sched_setaffinity(0, sizeof here, &here) == 0;
    }
    ~OneProcessor() {
        if (m_changed)
            ::sched_setaffinity(0, sizeof m_before, &m_before);
    }
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

  private:
    cpu_set_t m_before{};
    bool m_changed = false;
};

// Follows one program until all of its processes are gone, or let go.
class Tracer {
  public:
    Tracer(pid_t client, Kill kill, const CallObserver* observer)
        : m_client(client), m_kill(kill), m_observer(observer), m_processes{client} {}

    Run follow() {
        attach();
        for (;;) {
            int status = 0;
            pid_t thread = ::waitpid(-1, &status, __WALL);
            if (thread < 0 && errno == EINTR)
                continue;
            if (thread < 0)
                return m_run; // nobody is left
            if (WIFSTOPPED(status)) {
                meet(thread, status);
                continue;
            }
            m_processes.erase(thread);
            if (thread == m_client)
                m_run.exit_code = exit_code_of(status);
        }
    }

  private:
    void attach() {
        int status = 0;
        if (::waitpid(m_client, &status, 0) != m_client || !WIFSTOPPED(status))
            fail("the program did not stop to be traced");
        constexpr long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                                 PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
        if (::ptrace(PTRACE_SETOPTIONS, m_client, nullptr, options) != 0)
            fail("ptrace");
        go_on(m_client, 0);
    }

    void meet(pid_t thread, int status) {
        constexpr int call_stop = SIGTRAP | 0x80;
        constexpr int event_shift = 16;
        int event = status >> event_shift;
        unsigned long child = 0;
        if (event != 0 && event != PTRACE_EVENT_CLONE &&
            ::ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &child) == 0)
            m_processes.insert(static_cast<pid_t>(child));
        int signal = WSTOPSIG(status);
        if (signal == call_stop)
            meet_call(thread);
        // A new process or thread begins with SIGSTOP.
        bool own = signal == call_stop || signal == SIGTRAP || signal == SIGSTOP;
        go_on(thread, own ? 0 : signal);
    }

    void go_on(pid_t thread, int signal) {
        // A thread that was killed meanwhile is told of by waitpid.
        auto data = reinterpret_cast<void*>(static_cast<std::uintptr_t>(signal));
        ::ptrace(m_let_go ? PTRACE_DETACH : PTRACE_SYSCALL, thread, nullptr, data);
    }

    // A thread stops before a call and after it.
    void meet_call(pid_t thread) {
        __ptrace_syscall_info info{};
        auto size = reinterpret_cast<void*>(sizeof info);
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, size, &info) <= 0)
            return;
        bool begins_change = info.op == PTRACE_SYSCALL_INFO_ENTRY && changes_files(info);
        ++m_run.moments;
        m_run.calls += begins_change ? 1 : 0;
        if (info.op == PTRACE_SYSCALL_INFO_EXIT)
            if (auto flush = m_flushes.extract(thread); flush && info.exit.is_error == 0)
                m_observer->flushed(flush.mapped());
        if (is_due(begins_change)) {
            strike();
        } else if (begins_change && m_observer != nullptr) {
            m_observer->before_call();
            if (is_flush(info.entry.nr))
                m_flushes[thread] =
                    "/proc/" + std::to_string(thread) + "/fd/" + std::to_string(info.entry.args[0]);
        }
    }

    bool is_due(bool begins_change) const {
        // With the module as the victim, there must be one.
        bool victim_lives = m_kill.victim != Victim::module_process || m_processes.size() > 1;
        return victim_lives && !m_run.killed &&
               ((begins_change && m_kill.call != 0 && m_run.calls >= m_kill.call) ||
                (m_kill.moment != 0 && m_run.moments >= m_kill.moment));
    }

    void strike() {
        m_run.killed = true;
        for (pid_t process : m_processes)
            if (m_kill.victim == Victim::everything ||
                (process == m_client) == (m_kill.victim == Victim::client))
                ::kill(process, SIGKILL);
        m_let_go = m_kill.victim == Victim::client;
    }

    pid_t m_client;
    Kill m_kill;
    const CallObserver* m_observer;
    Run m_run;
    std::map<pid_t, std::string> m_flushes; // under way, by thread
    std::set<pid_t> m_processes;            // that live, threads of them not among them
    bool m_let_go = false;
};

} // namespace

Run run_program(const Words& words, const Environment& more, Kill kill,
                const CallObserver* observer) {
    bool traced = kill.call != 0 || kill.moment != 0 || observer != nullptr;
    std::optional<OneProcessor> one;
    if (traced)
        one.emplace();
    Program program(words, more, traced);
    if (!traced)
        return {program.wait()};
    Run run = Tracer(program.pid(), kill, observer).follow();
    program.waited();
    static_cast<Outcome&>(run) = program.printed(run.exit_code);
    return run;
}

} // namespace qrtln::torture
