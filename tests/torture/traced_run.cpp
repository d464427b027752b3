#include "tests/torture/traced_run.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <optional>
#include <sched.h>
#include <set>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace qrtln::torture {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool is_flush(std::uint64_t call) {
    return call == SYS_fsync || call == SYS_fdatasync;
}

// A call of the system that changes files; always, or where an argument passes a test.
struct ChangingCall {
    std::uint32_t number;
    std::uint16_t test = 0; // of BPF, with this value
    std::uint32_t argument = 0;
    std::uint32_t value = 0;
};

constexpr std::uint32_t creates = O_CREAT | O_TRUNC;
constexpr ChangingCall changing_calls[] = {
#ifdef SYS_open
    {SYS_open, BPF_JSET, 1, creates},
    {SYS_unlink},
    {SYS_rmdir},
    {SYS_rename},
    {SYS_link},
    {SYS_mkdir},
#endif
    {SYS_openat, BPF_JSET, 2, creates},
    {SYS_write, BPF_JGT, 0, STDERR_FILENO},
    {SYS_pwrite64, BPF_JGT, 0, STDERR_FILENO},
    {SYS_writev, BPF_JGT, 0, STDERR_FILENO},
    {SYS_copy_file_range},
    {SYS_sendfile},
    {SYS_ftruncate},
    {SYS_truncate},
    {SYS_fsync},
    {SYS_fdatasync},
    {SYS_unlinkat},
    {SYS_renameat},
    {SYS_renameat2},
    {SYS_linkat},
    {SYS_mkdirat},
    {SYS_fchmod},
    {SYS_fchown},
    {SYS_utimensat}};

// The kernel looks for them: to stop at every call of the system takes most of a run.
std::vector<sock_filter> changes_filter() {
    const sock_filter stop = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    const sock_filter pass = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const ChangingCall& call : changing_calls) {
        const std::uint8_t rest = call.test == 0 ? 1 : 4;
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.number, 0, rest));
        if (call.test != 0) { // the lower half, of a machine that begins with it
            const std::uint32_t offset = offsetof(seccomp_data, args) + 8 * call.argument;
            filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset));
            const auto test = static_cast<std::uint16_t>(BPF_JMP | BPF_K | call.test);
            filter.push_back(BPF_JUMP(test, call.value, 1, 0));
            filter.push_back(pass);
        }
        filter.push_back(stop);
    }
    filter.push_back(pass);
    return filter;
}
std::vector<sock_filter> s_filter = changes_filter();

// In the process that is to be traced.
void stop_at_changes() {
    const sock_fprog program = {static_cast<std::uint16_t>(s_filter.size()), s_filter.data()};
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        ::_exit(126);
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

// Follows one program until all of its processes are gone.
class Tracer {
  public:
    Tracer(pid_t client, Kill kill, const CallObserver* observer)
        : m_client(client), m_kill(kill), m_observer(observer), m_processes{client},
          m_at_each_call(kill.call == 0) {}

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
                                 PTRACE_O_TRACECLONE | PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
        if (::ptrace(PTRACE_SETOPTIONS, m_client, nullptr, options) != 0)
            fail("ptrace");
        go_on(m_client, 0);
    }

    void meet(pid_t thread, int status) {
        constexpr int call_stop = SIGTRAP | 0x80;
        constexpr int event_shift = 16;
        const int event = status >> event_shift;
        unsigned long child = 0;
        if ((event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK) &&
            ::ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &child) == 0)
            m_processes.insert(static_cast<pid_t>(child));
        const int signal = WSTOPSIG(status);
        if (signal == call_stop || event == PTRACE_EVENT_SECCOMP)
            meet_call(thread);
        // A new process or thread begins with SIGSTOP.
        const bool own = signal == call_stop || signal == SIGTRAP || signal == SIGSTOP;
        go_on(thread, own ? 0 : signal);
    }

    // To the next call, or to the next that changes files; of a flush, to its end.
    void go_on(pid_t thread, int signal) {
        const bool at_each = m_at_each_call && !m_run.killed;
        // A thread that was killed meanwhile is told of by waitpid.
        auto data = reinterpret_cast<void*>(static_cast<std::uintptr_t>(signal));
        ::ptrace(at_each || m_flushes.contains(thread) ? PTRACE_SYSCALL : PTRACE_CONT, thread,
                 nullptr, data);
    }

    // Before a call, once more before one that changes files, and after it.
    void meet_call(pid_t thread) {
        __ptrace_syscall_info info{};
        auto size = reinterpret_cast<void*>(sizeof info);
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, size, &info) <= 0)
            return;
        const bool begins_change = info.op == PTRACE_SYSCALL_INFO_SECCOMP;
        m_run.moments += begins_change ? 0 : 1;
        m_run.calls += begins_change ? 1 : 0;
        if (info.op == PTRACE_SYSCALL_INFO_EXIT)
            if (auto flush = m_flushes.extract(thread); flush && info.exit.is_error == 0)
                m_observer->flushed(flush.mapped());
        if (is_due(begins_change)) {
            strike();
        } else if (begins_change && m_observer != nullptr) {
            m_observer->before_call();
            if (is_flush(info.seccomp.nr))
                m_flushes[thread] = "/proc/" + std::to_string(thread) + "/fd/" +
                                    std::to_string(info.seccomp.args[0]);
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
    }

    pid_t m_client;
    Kill m_kill;
    const CallObserver* m_observer;
    Run m_run;
    std::map<pid_t, std::string> m_flushes; // under way, by thread
    std::set<pid_t> m_processes;            // that live, threads of them not among them
    bool m_at_each_call;                    // or only at those that change files
};

} // namespace

Run run_program(const Words& words, const Environment& more, Kill kill,
                const CallObserver* observer) {
    bool traced = kill.call != 0 || kill.moment != 0 || observer != nullptr;
    std::optional<OneProcessor> one;
    if (traced)
        one.emplace();
    Program program(words, more, traced ? stop_at_changes : nullptr);
    if (!traced)
        return {program.wait()};
    Run run = Tracer(program.pid(), kill, observer).follow();
    program.waited();
    static_cast<Outcome&>(run) = program.printed(run.exit_code);
    return run;
}

} // namespace qrtln::torture
