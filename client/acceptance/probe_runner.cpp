#include "client/acceptance/probe_runner.h"

#include "client/acceptance/probe_process.h"
#include "client/acceptance/teller.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace qrtln::acceptance {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kept_output = 4096; // bytes of what the library writes
constexpr auto grace = std::chrono::seconds(2);
constexpr const char* first_call = "the start of its process";

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw ClientError(ExitCode::failed,
                              "cannot create a pipe: " + system_error_text(errno));
        read = FileDescriptor(ends[0]);
        write = FileDescriptor(ends[1]);
    }
};

class RunningProbe {
  public:
    RunningProbe(Report& report, Step step, std::chrono::seconds limit)
        : m_report(report), m_step(step), m_limit(limit) {}
    ~RunningProbe() {
        if (m_pid <= 0)
            return;
        try {
            end_process();
        } catch (...) { // what it tells cannot be kept
            ::kill(m_pid, SIGKILL);
            wait_for_end();
        }
    }
    RunningProbe(const RunningProbe&) = delete;
    RunningProbe& operator=(const RunningProbe&) = delete;

    void start(Group group, const ProbeRequest& request);
    bool wait(bool hide_output);

  private:
    bool read_messages();
    void read_output();
    void take(const std::string& line);
    void end_process();
    int wait_for_end();
    void tell_output(bool hide);
    void tell_end(int status, bool silent);
    void tell_what_is_left();

    Report& m_report;
    const Step m_step;
    const std::chrono::seconds m_limit;
    pid_t m_pid = -1;
    FileDescriptor m_messages;
    FileDescriptor m_output;
    std::string m_unread;
    std::string m_library_text;
    std::size_t m_library_bytes = 0;
    std::string m_call = first_call;
    std::map<std::string, std::string> m_leaves; // by their kinds
    bool m_done = false;
    Clock::time_point m_last_message;
};

void RunningProbe::start(Group group, const ProbeRequest& request) {
    Pipe output;
    OwnProcess process = start_own_process(probe_process_start(request, output.write.get()));
    m_pid = process.pid;
    m_messages = std::move(process.socket);
    m_output = std::move(output.read);
    // What the library started itself may hold its standard output for ever.
    ::fcntl(m_output.get(), F_SETFL, O_NONBLOCK);
    // A process that is gone shows when it is waited for.
    (void)send_frame(m_messages.get(), request_frame(group, request));
}

void RunningProbe::take(const std::string& line) {
    json message = json::parse(line, nullptr, false);
    if (message.is_discarded())
        return;
    if (message.contains("call"))
        m_call = message["call"];
    else if (message.contains("leaves"))
        m_leaves[message["kind"]] = message["leaves"];
    else if (message.contains("done"))
        m_done = true;
    else
        m_report.add(finding_from_json(message));
}

// Returns false at the end of the connection.
bool RunningProbe::read_messages() {
    char buffer[4096];
    ssize_t size = ::read(m_messages.get(), buffer, sizeof buffer);
    if (size <= 0)
        return size < 0 && errno == EINTR;
    m_last_message = Clock::now();
    m_unread.append(buffer, static_cast<std::size_t>(size));
    for (std::size_t end = m_unread.find('\n'); end != std::string::npos;
         end = m_unread.find('\n')) {
        std::string line = m_unread.substr(0, end);
        m_unread.erase(0, end + 1);
        take(line);
    }
    return true;
}

void RunningProbe::read_output() {
    char buffer[4096];
    ssize_t size = ::read(m_output.get(), buffer, sizeof buffer);
    if (size == 0)
        m_output.reset(); // poll() would find its end again and again
    for (; size > 0; size = ::read(m_output.get(), buffer, sizeof buffer)) {
        const auto read = static_cast<std::size_t>(size);
        m_library_bytes += read;
        m_library_text.append(buffer, std::min(read, kept_output - m_library_text.size()));
    }
}

int RunningProbe::wait_for_end() {
    int status = 0;
    while (m_pid > 0 && ::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
}

// It undoes what it has begun, and tells; what hangs, or is not waited for, is killed.
void RunningProbe::end_process() {
    ::shutdown(m_messages.get(), SHUT_WR);
    const auto deadline = Clock::now() + std::max<Clock::duration>(m_limit, grace);
    constexpr int looks_again = 200; // milliseconds, for a signal that wakes nobody
    for (bool open = true; open && Clock::now() < deadline && !interrupted_again();) {
        pollfd ready[2] = {{m_messages.get(), POLLIN, 0}, {m_output.get(), POLLIN, 0}};
        (void)::poll(ready, 2, looks_again);
        if (ready[1].revents != 0)
            read_output(); // a writer must not wait for a reader
        if (ready[0].revents != 0)
            open = read_messages();
        if (!open) {
            wait_for_end();
            return;
        }
    }
    ::kill(m_pid, SIGKILL);
    while (read_messages()) {
    }
    wait_for_end();
}

void RunningProbe::tell_output(bool hide) {
    read_output();
    while (!m_library_text.empty() && std::strchr("\n\r ", m_library_text.back()) != nullptr)
        m_library_text.pop_back();
    if (m_library_bytes == 0)
        return;
    std::string text = fmt::format("the library wrote {} bytes", m_library_bytes);
    if (!hide)
        text += fmt::format(": {}{}", printable_utf8(m_library_text),
                            m_library_bytes > kept_output ? " ..." : "");
    m_report.add({m_step, "output", Verdict::told, text, {}, false});
}

void RunningProbe::tell_end(int status, bool silent) {
    std::string text;
    const char* name = "ended";
    if (silent) {
        name = "hang";
        text = fmt::format("no answer for {} s from {}; the process was ended", m_limit.count(),
                           m_call);
    } else if (WIFSIGNALED(status)) {
        name = "crash";
        text = fmt::format("the library crashed with signal {} ({}) in {}", WTERMSIG(status),
                           ::strsignal(WTERMSIG(status)), m_call);
    } else if (WEXITSTATUS(status) == loader_failed && m_call == first_call) {
        name = "library";
        text = "the process for it does not start: a library in the server's program directory "
               "stands in for one of the system's";
    } else {
        text = fmt::format("the library ended the process with exit status {} in {}",
                           WEXITSTATUS(status), m_call);
    }
    m_report.add({m_step, name, Verdict::stop, text, {}, false});
}

void RunningProbe::tell_what_is_left() {
    for (const auto& [kind, text] : m_leaves) {
        const Finding finding{m_step, left_finding, Verdict::stop, text, {}, false};
        if (!text.empty() && interrupt_signal() != 0)
            m_report.add_at_interruption(finding);
        else if (!text.empty())
            m_report.add(finding);
    }
}

bool RunningProbe::wait(bool hide_output) {
    bool silent = false;
    m_last_message = Clock::now();
    for (bool open = true; open;) {
        pollfd ready[3] = {{m_messages.get(), POLLIN, 0},
                           {m_output.get(), POLLIN, 0},
                           {interrupt_descriptor(), POLLIN, 0}};
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_last_message + m_limit - Clock::now());
        (void)::poll(ready, 3, std::max(0, static_cast<int>(left.count())));
        if (interrupt_signal() != 0) {
            print_message(fmt::format(
                "waiting for the server's library: {} (a second signal ends its process at once)",
                for_terminal(m_call)));
            end_process();
            tell_what_is_left();
            throw_if_interrupted();
        }
        if (ready[1].revents != 0)
            read_output();
        if (ready[0].revents != 0)
            open = read_messages();
        else if (Clock::now() >= m_last_message + m_limit) {
            silent = true;
            ::kill(m_pid, SIGKILL);
            break;
        }
    }
    int status = wait_for_end();
    tell_output(hide_output);
    if (!m_done)
        tell_end(status, silent);
    tell_what_is_left();
    return m_done;
}

} // namespace

bool run_probe(Report& report, Group group, const ProbeRequest& request,
               std::chrono::seconds limit) {
    RunningProbe running(report, step_of(group), limit);
    running.start(group, request);
    return running.wait(request.hide_output) && !report.stopped();
}

} // namespace qrtln::acceptance
