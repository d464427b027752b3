#include "client/acceptance/probe.h"

#include "client/error.h"
#include "client/interrupt.h"
#include "client/output.h"
#include "client/text.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sys/wait.h>

namespace qrtln::acceptance {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kept_output = 4096; // bytes of what the library writes
constexpr auto grace = std::chrono::seconds(2);

// --- the probe's side

// What the library finds in its process. The one place where that is prepared.
void prepare_library_process(const NotesIni& ini, int output) {
    int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0)
        ::dup2(null, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    (void)std::setvbuf(stdout, nullptr, _IONBF,
                       0); // a crash must not take the library's last words
    (void)::signal(SIGPIPE, SIG_IGN);
    if (std::string directory = exec_directory(ini); !directory.empty())
        ::setenv("Notes_ExecDirectory", directory.c_str(), 1);
    if (::chdir("/") != 0)
        ::_exit(1);
}

[[noreturn]] void be_the_probe(int messages, int output, Step step, Probe probe,
                               const ProbeRequest& request) {
    try {
        prepare_library_process(request.ini, output);
        Teller teller(messages, step);
        try {
            probe(teller, request);
        } catch (const Surprise& surprise) {
            teller.send(surprise.finding);
        } catch (const std::exception& failure) {
            teller.send({step, own_failure, Verdict::stop, failure.what(), {}, false});
        }
        (void)write_all(messages, as_bytes("{\"done\":true}\n"));
    } catch (const ClientGone&) {
        // Everything is undone, and nobody is there to be told.
    }
    ::_exit(0); // no handler of the library's runs any more
}

// --- the client's side

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
        if (m_pid > 0)
            end_process();
    }
    RunningProbe(const RunningProbe&) = delete;
    RunningProbe& operator=(const RunningProbe&) = delete;

    void start(Probe probe, const ProbeRequest& request);
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
    std::string m_call = "the start of its process";
    std::map<std::string, std::string> m_leaves; // by their kinds
    bool m_done = false;
    Clock::time_point m_last_message;
};

void RunningProbe::start(Probe probe, const ProbeRequest& request) {
    Pipe messages;
    Pipe output;
    std::fflush(nullptr);
    {
        InterruptsBlocked blocked;
        m_pid = ::fork();
        if (m_pid == 0) {
            messages.read.reset();
            output.read.reset();
            be_the_probe(messages.write.get(), output.write.get(), m_step, probe, request);
        }
    }
    if (m_pid < 0)
        throw ClientError(ExitCode::failed, "cannot start a process for the server's library: " +
                                                system_error_text(errno));
    m_messages = std::move(messages.read);
    m_output = std::move(output.read);
    // What the library started itself may hold its standard output for ever.
    ::fcntl(m_output.get(), F_SETFL, O_NONBLOCK);
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

// Its next message fails, and it undoes what it has begun; what hangs is killed.
void RunningProbe::end_process() {
    m_messages.reset();
    const auto deadline = Clock::now() + std::max<Clock::duration>(m_limit, grace);
    while (Clock::now() < deadline) {
        read_output(); // a writer must not wait for a reader
        if (::waitpid(m_pid, nullptr, WNOHANG) != 0) {
            m_pid = -1;
            return;
        }
        ::poll(nullptr, 0, 20);
    }
    ::kill(m_pid, SIGKILL);
    wait_for_end();
    for (const auto& [kind, text] : m_leaves)
        if (!text.empty())
            print_message("left on the server: " + for_terminal(text));
}

void RunningProbe::tell_output(bool hide) {
    read_output();
    while (!m_library_text.empty() && std::strchr("\n\r ", m_library_text.back()) != nullptr)
        m_library_text.pop_back();
    if (m_library_bytes == 0)
        return;
    std::string text = "the library wrote " + std::to_string(m_library_bytes) + " bytes";
    if (!hide)
        text +=
            ": " + printable_utf8(m_library_text) + (m_library_bytes > kept_output ? " ..." : "");
    m_report.add({m_step, "output", Verdict::told, text, {}, false});
}

void RunningProbe::tell_end(int status, bool silent) {
    std::string text;
    const char* name = "ended";
    if (silent) {
        name = "hang";
        text = "no answer for " + std::to_string(m_limit.count()) + " s from " + m_call +
               "; the process was ended";
    } else if (WIFSIGNALED(status)) {
        name = "crash";
        text = "the library crashed with signal " + std::to_string(WTERMSIG(status)) + " (" +
               ::strsignal(WTERMSIG(status)) + ") in " + m_call;
    } else {
        text = "the library ended the process with exit status " +
               std::to_string(WEXITSTATUS(status)) + " in " + m_call;
    }
    m_report.add({m_step, name, Verdict::stop, text, {}, false});
}

void RunningProbe::tell_what_is_left() {
    for (const auto& [kind, text] : m_leaves)
        if (!text.empty())
            m_report.add({m_step, "left", Verdict::stop, text, {}, false});
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
            print_message("waiting for the server's library: " + for_terminal(m_call));
            end_process();
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

bool run_probe(Report& report, Step step, Probe probe, const ProbeRequest& request,
               std::chrono::seconds limit) {
    RunningProbe running(report, step, limit);
    running.start(probe, request);
    return running.wait(request.hide_output) && !report.stopped();
}

} // namespace qrtln::acceptance
