#include "tests/torture/traced_run.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace qrtln::torture {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The name of a system call that changes files; nullptr for any other.
const char* changing_call(std::uint64_t number, const std::uint64_t* arguments) {
    constexpr std::uint64_t creates = O_CREAT | O_TRUNC;
    switch (number) {
    case SYS_open:
        return (arguments[1] & creates) != 0 ? "open" : nullptr;
    case SYS_openat:
        return (arguments[2] & creates) != 0 ? "open" : nullptr;
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
        return arguments[0] > 2 ? "write" : nullptr;
    case SYS_copy_file_range:
    case SYS_sendfile:
        return "copy";
    case SYS_ftruncate:
    case SYS_truncate:
        return "truncate";
    case SYS_fsync:
    case SYS_fdatasync:
        return "flush";
    case SYS_unlink:
    case SYS_unlinkat:
    case SYS_rmdir:
        return "remove";
    case SYS_rename:
    case SYS_renameat:
    case SYS_renameat2:
        return "rename";
    case SYS_link:
    case SYS_linkat:
        return "link";
    case SYS_mkdir:
    case SYS_mkdirat:
        return "mkdir";
    case SYS_fchmod:
    case SYS_fchown:
    case SYS_utimensat:
        return "metadata";
    default:
        return nullptr;
    }
}

// Text that a call of a stopped thread was given.
std::string text_at(pid_t thread, std::uint64_t address) {
    constexpr std::size_t longest = 1024;
    std::string text(longest, '\0');
    iovec here = {text.data(), text.size()};
    iovec there = {reinterpret_cast<void*>(address), text.size()};
    if (::process_vm_readv(thread, &here, 1, &there, 1, 0) <= 0)
        return {};
    return text.c_str();
}

// Whether a call that removes something removes a copy which waited to be put in place.
bool removes_copy(pid_t thread, std::uint64_t number, const std::uint64_t* arguments) {
    std::string path = text_at(thread, arguments[number == SYS_unlinkat ? 1 : 0]);
    return path.find("/qrtln-recovery_") != std::string::npos && path.ends_with(".nsf");
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Follows one program until all of its processes are gone, or let go.
class Tracer {
  public:
    Tracer(pid_t client, Kill kill, CallObserver* observer)
        : m_client(client), m_kill(kill), m_observer(observer), m_processes{client} {}
    // Returns the status of the client.
    int follow(Run& run);

  private:
    void attach();
    void meet(pid_t thread, int status, Run& run);
    void meet_call(pid_t thread, Run& run);
    void enter(pid_t thread, std::uint64_t number, const std::uint64_t* arguments, Run& run);
    void begin_flush(pid_t thread, std::uint64_t fd);
    void end_flush(pid_t thread, bool failed);
    void strike();
    void go_on(pid_t thread, int signal);

    pid_t m_client;
    Kill m_kill;
    CallObserver* m_observer;
    struct Flush {
        std::string descriptor;
        bool ignored = false;
    };
    std::map<pid_t, Flush> m_flushes; // under way, by thread
    std::set<pid_t> m_processes;      // that live, threads of them not among them
    std::set<pid_t> m_threads;        // of all processes, that were met
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
    std::set<pid_t> victims = m_processes;
    if (m_kill.victim == Victim::client)
        victims = {m_client};
    else if (m_kill.victim == Victim::module_process)
        victims.erase(m_client);
    for (pid_t victim : victims)
        ::kill(victim, SIGKILL);
    m_let_go = m_kill.victim == Victim::client;
}

void Tracer::meet(pid_t thread, int status, Run& run) {
    constexpr int event_shift = 8;
    int signal = WSTOPSIG(status);
    if (m_threads.insert(thread).second && signal == SIGSTOP) {
        go_on(thread, 0); // a new process or thread begins with this stop
        return;
    }
    if (int event = status >> (event_shift * 2); event != 0) {
        unsigned long child = 0;
        if (event != PTRACE_EVENT_CLONE &&
            ::ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &child) == 0)
            m_processes.insert(static_cast<pid_t>(child));
        go_on(thread, 0);
        return;
    }
    if (signal != (SIGTRAP | 0x80)) {
        go_on(thread, signal == SIGTRAP ? 0 : signal); // exec tells of itself by a SIGTRAP
        return;
    }
    meet_call(thread, run);
    go_on(thread, 0);
}

// A thread stops before a call and after it.
void Tracer::meet_call(pid_t thread, Run& run) {
    __ptrace_syscall_info info{};
    auto size = reinterpret_cast<void*>(sizeof info);
    if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, size, &info) <= 0)
        return;
    if (info.op == PTRACE_SYSCALL_INFO_EXIT && m_flushes.contains(thread))
        end_flush(thread, info.exit.is_error != 0);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
        return;
    std::uint64_t arguments[3] = {info.entry.args[0], info.entry.args[1], info.entry.args[2]};
    enter(thread, info.entry.nr, arguments, run);
}

void Tracer::enter(pid_t thread, std::uint64_t number, const std::uint64_t* arguments, Run& run) {
    const char* name = changing_call(number, arguments);
    if (name == nullptr)
        return;
    run.calls.emplace_back(name);
    // The client removes what is left, below its folder; the module by the whole path.
    if (name == std::string_view("remove") && removes_copy(thread, number, arguments))
        run.calls.back() = removal_of_copy;
    // With the module as the victim, there must be one.
    bool victim_lives = m_kill.victim != Victim::module_process || m_processes.size() > 1;
    if (!run.killed && m_kill.call != 0 && run.calls.size() >= m_kill.call && victim_lives) {
        run.killed = true;
        strike();
    } else if (m_observer != nullptr) {
        m_observer->before_call();
        if (number == SYS_fsync || number == SYS_fdatasync)
            begin_flush(thread, arguments[0]);
    }
}

void Tracer::begin_flush(pid_t thread, std::uint64_t fd) {
    Flush flush{"/proc/" + std::to_string(thread) + "/fd/" + std::to_string(fd)};
    flush.ignored = m_observer->ignores_flush(flush.descriptor);
    if (flush.ignored) // no call has this number
        ::ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, orig_rax), -1L);
    m_flushes[thread] = flush;
}

void Tracer::end_flush(pid_t thread, bool failed) {
    Flush flush = m_flushes.extract(thread).mapped();
    if (flush.ignored)
        ::ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, rax), 0L);
    else if (!failed)
        m_observer->flushed(flush.descriptor);
}

int Tracer::follow(Run& run) {
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
            meet(thread, status, run);
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
    std::istringstream text(read_file("/proc/" + number + "/task/" + number + "/children"));
    return {std::istream_iterator<pid_t>(text), std::istream_iterator<pid_t>()};
}

} // namespace

const char* victim_name(Victim victim) {
    switch (victim) {
    case Victim::everything:
        return "client and module";
    case Victim::client:
        return "client";
    case Victim::module_process:
        break;
    }
    return "module";
}

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
    for (auto [name, stream] : {std::pair{"/output", 1}, std::pair{"/errors", 2}}) {
        int fd = ::open((m_scratch + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, stream);
    }
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    ::setpgid(0, 0);
    if (traced) {
        // It needs ptrace itself. A process that is altered has a library before the sanitizer's.
        ::setenv("ASAN_OPTIONS", "detect_leaks=0:verify_asan_link_order=0", 1);
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
    run.output = read_file(m_scratch + "/output");
    run.errors = read_file(m_scratch + "/errors");
    return run;
}

Run Started::finish() {
    if (m_pid > 0 && ::waitpid(m_pid, &m_status, 0) != m_pid)
        fail("waitpid");
    return finish(m_status);
}

Run run(const std::vector<std::string>& words, const Environment& environment,
        const std::string& scratch, bool traced, Kill kill, CallObserver* observer) {
    Started program(words, environment, scratch, traced);
    if (!traced)
        return program.finish();
    Run followed;
    int status = Tracer(program.pid(), kill, observer).follow(followed);
    Run finished = program.finish(status);
    finished.calls = std::move(followed.calls);
    finished.killed = followed.killed;
    return finished;
}

Run run_for(std::chrono::microseconds time, Victim victim, const std::vector<std::string>& words,
            const Environment& environment, const std::string& scratch) {
    Started program(words, environment, scratch);
    pid_t client = program.pid();
    ::setpgid(client, client); // it may not have come to it yet
    std::this_thread::sleep_for(time);
    std::vector<pid_t> victims = {-client}; // its process group
    if (victim == Victim::client)
        victims = {client};
    if (victim == Victim::module_process)
        victims = children_of(client);
    bool killed = !program.ended() && !victims.empty();
    if (killed)
        for (pid_t process : victims)
            ::kill(process, SIGKILL);
    Run run = program.finish();
    run.killed = killed;
    return run;
}

} // namespace qrtln::torture
