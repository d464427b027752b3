#include "client/module/host.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/module/frames.h"
#include "client/module/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace qrtln {

using namespace std::chrono_literals;

namespace {

// The name with the version of the interface that this client is written for.
constexpr const char* module_soname = "libqrtln.so.1";
// Below the folder that has bin/: where a build has it, then where it is installed.
constexpr const char* module_places[] = {"lib/libqrtln.so", "lib/libqrtln.so.1",
                                         QRTLN_LIBRARY_DIRECTORY "/libqrtln.so.1"};
// Milliseconds: neither a line that the module tells wakes the client, nor every signal.
constexpr int looks_again = 200;

std::string variables_frame(FrameWriter& frame, const std::vector<std::string>& variables) {
    frame.number(static_cast<std::int32_t>(variables.size()));
    for (const std::string& variable : variables)
        frame.text(variable);
    return frame.finish();
}

std::string executable_directory() {
    std::optional<std::string> executable = real_path("/proc/self/exe");
    return executable ? executable->substr(0, executable->rfind('/')) : std::string();
}

} // namespace

std::string find_module(const std::string& given) {
    if (!given.empty())
        return absolute_path(given);
    std::string own = executable_directory();
    if (!own.empty()) {
        const std::string above = own.substr(0, own.rfind('/')) + "/";
        for (const char* place : module_places)
            if (::access((above + place).c_str(), R_OK) == 0)
                return above + place;
    }
    return module_soname;
}

namespace {

std::string start_frame(const ModuleOptions& options) {
    FrameWriter frame(FrameKind::start);
    frame.text(options.module_file).text(options.runtime_directory).text(options.data_directory);
    write_user(frame, options.user);
    return frame.finish();
}

} // namespace

ModuleHost::ModuleHost(ModuleOptions options) : m_options(std::move(options)) {
    OwnProcessStart start = module_process_start();
    start.environment = m_options.environment;
    OwnProcess process = start_own_process(start);
    m_pid = process.pid;
    m_socket = std::move(process.socket);
    m_lines.emplace(process.lines.get());
    m_started_pid = m_pid;
    FrameReader answer(call(start_frame(m_options), "loading " + m_options.module_file));
    if (answer.number() != DB_NUM_I_OK) {
        std::string text = answer.text();
        m_socket.reset();
        wait_for_child();
        std::string hint = "name the file with --module or QRTLN_MODULE";
        if (m_options.user)
            hint += fmt::format("; {}, who runs it, must be able to read it", m_options.user->name);
        throw ClientError(ExitCode::server_error,
                          fmt::format("cannot load the module {}: {}",
                                      for_terminal(m_options.module_file), for_terminal(text)),
                          hint);
    }
}

ModuleHost::~ModuleHost() {
    end_child();
}

// A copy that runs is stopped; the end of the connection makes the child close its operation.
void ModuleHost::end_child() {
    if (m_pid <= 0)
        return;
    m_options.on_log = m_options.on_trace = m_options.on_notice = {}; // who asked may be gone
    signal_child(SIGTERM);
    ::shutdown(m_socket.get(), SHUT_WR);
    try {
        Patience left = patience();
        std::string payload;
        while (wait_for_message(left, "ending the operation") &&
               receive_frame(m_socket.get(), payload) == ReceiveResult::frame) {
            left.heard(Patience::Clock::now());
            drop_lines();
        }
    } catch (const std::exception&) {
        signal_child(SIGKILL); // it cannot be waited for
    }
    m_socket.reset();
    wait_for_child();
}

int ModuleHost::wait_for_child() {
    int status = 0;
    while (m_pid > 0 && ::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
}

// After the process ended within a call.
std::string ModuleHost::what_is_left() const {
    return m_restores ? "run the same command again, which goes on with what is left; until then a "
                        "database may be offline"
                      : "the next backup clears what this command left on the server";
}

void ModuleHost::report_end(const std::string& doing) {
    m_socket.reset();
    int status = wait_for_child();
    std::string how;
    if (WIFSIGNALED(status)) {
        int signal = WTERMSIG(status);
        how = fmt::format("crashed with signal {} ({})", signal, ::strsignal(signal));
    } else if (WEXITSTATUS(status) == loader_failed && doing.starts_with("loading ")) {
        throw ClientError(ExitCode::server_error,
                          "the module's process does not start: see the loader's message above",
                          "a library in the server's program directory stands in for one of the "
                          "system's");
    } else {
        how = "ended the process with exit status " + std::to_string(WEXITSTATUS(status));
    }
    throw ClientError(ExitCode::server_error,
                      fmt::format("the server's library {} while {}", how, doing),
                      "look into the server's console and log; " + what_is_left());
}

void ModuleHost::forward_interrupt() {
    if (interrupt_signal() != 0 && !m_interrupt_forwarded) {
        m_interrupt_forwarded = true;
        signal_child(SIGTERM);
    }
}

// Never to the process that is none: kill() takes its number for all processes.
void ModuleHost::signal_child(int signal) {
    if (m_pid > 0)
        ::kill(m_pid, signal);
}

// Once a signal has come, the library has this long to come to an end: what puts databases in place
// should not be cut off while it does.
std::chrono::seconds ModuleHost::grace() const {
    constexpr std::chrono::seconds usual{10};
    constexpr std::chrono::seconds of_restores{120};
    std::chrono::seconds grace = m_restores ? of_restores : usual;
    bool has_timeout = m_options.call_timeout > m_options.call_timeout.zero();
    return has_timeout ? std::min(grace, m_options.call_timeout) : grace;
}

Patience ModuleHost::patience() const {
    return {interrupt_signal() != 0 ? grace() : m_options.call_timeout, Patience::Clock::now()};
}

void ModuleHost::give_up(const std::string& doing, std::chrono::seconds silence) {
    if (!interrupted_again()) {
        signal_child(SIGTERM);
        ::shutdown(m_socket.get(), SHUT_WR);
        auto until = Patience::Clock::now() + (interrupt_signal() != 0 ? 0s : grace());
        while (Patience::Clock::now() < until && !interrupted_again()) {
            pollfd ready = {m_socket.get(), POLLIN, 0};
            std::string payload;
            drop_lines(); // it may wait until they are taken
            if (::poll(&ready, 1, looks_again) > 0 &&
                receive_frame(m_socket.get(), payload) != ReceiveResult::frame)
                break;
        }
    }
    signal_child(SIGKILL);
    m_socket.reset();
    wait_for_child();
    throw_if_interrupted();
    throw ClientError(
        ExitCode::server_error,
        fmt::format("the server's library kept silent for {} s while {}: its process was ended",
                    silence.count(), doing),
        "look at the server's console; if the server is only slow, raise --call-timeout; " +
            what_is_left());
}

// Waits until there is something to receive; a process that is silent for too long is ended.
bool ModuleHost::wait_for_message(Patience& patience, const std::string& doing) {
    for (;;) {
        if (interrupt_signal() != 0 && !m_interrupt_forwarded) {
            forward_interrupt();
            patience.limit(grace(), Patience::Clock::now());
        }
        auto now = Patience::Clock::now();
        auto silence = patience.silence(now);
        switch (interrupted_again() ? Patience::Step::give_up : patience.next_step(now)) {
        case Patience::Step::give_up:
            give_up(doing, silence);
        case Patience::Step::tell:
            print_message(fmt::format(
                "waiting for the server for {} s: {}{}", silence.count(), doing,
                m_interrupt_forwarded ? " (a second signal ends the module's process at once)"
                                      : ""));
            break;
        case Patience::Step::wait:
            break;
        }
        int left = patience.milliseconds_left(now);
        pollfd ready[2] = {{m_socket.get(), POLLIN, 0}, {interrupt_descriptor(), POLLIN, 0}};
        // Once the interruption is passed on, only the reply matters, and a second signal.
        bool passed_on = m_interrupt_forwarded || interrupt_descriptor() < 0;
        if (::poll(ready, passed_on ? 1 : 2, std::min(left, looks_again)) < 0 && errno != EINTR)
            throw ClientError(ExitCode::failed,
                              "cannot wait for the module: " + system_error_text(errno));
        if ((ready[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0)
            return true;
        Progress::tick();
        if (take_lines())
            patience.heard(Patience::Clock::now());
    }
}

// Returns whether there were any.
bool ModuleHost::take_lines() {
    return m_lines->receive([this](LineKind kind, const std::string& text) {
        const auto& callback = kind == LineKind::log ? m_options.on_log : m_options.on_trace;
        if (callback)
            callback(text);
    });
}

void ModuleHost::drop_lines() {
    (void)m_lines->receive([](LineKind, const std::string&) {});
}

void ModuleHost::take_notice(const std::string& payload) {
    FrameReader frame(payload);
    if (frame.kind() == FrameKind::notice && m_options.on_notice)
        m_options.on_notice(frame.text());
}

std::string ModuleHost::wait_for_reply(const std::string& doing) {
    Patience left = patience();
    for (;;) {
        (void)wait_for_message(left, doing);
        std::string payload;
        const ReceiveResult received = receive_frame(m_socket.get(), payload);
        (void)take_lines(); // what was told before that
        switch (received) {
        case ReceiveResult::closed:
            report_end(doing);
        case ReceiveResult::failed:
            throw ClientError(ExitCode::server_error,
                              fmt::format("cannot read from the module's process while {}: {}",
                                          doing, system_error_text(errno)));
        case ReceiveResult::frame:
            break;
        }
        if (FrameReader(payload).kind() == FrameKind::reply)
            return payload;
        left.heard(Patience::Clock::now());
        take_notice(payload);
    }
}

std::string ModuleHost::call(const std::string& frame, const std::string& doing) {
    if (m_pid <= 0)
        throw ClientError(ExitCode::server_error,
                          "the module's process has ended, before " + doing);
    // A child that is gone shows in the wait, which tells how it ended.
    (void)send_frame(m_socket.get(), frame);
    return wait_for_reply(doing);
}

ModuleInfo ModuleHost::info() {
    FrameReader reply(call(FrameWriter(FrameKind::get_info).finish(), "asking for its version"));
    reply.number();
    ModuleInfo info;
    info.client = reply.text();
    info.version = reply.text();
    info.release = reply.text();
    info.item_handling = std::stoi(reply.text());
    return info;
}

int ModuleHost::init(DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level,
                     const std::vector<std::string>& variables) {
    m_restores = type == DB_TYPE_RST;
    FrameWriter frame(FrameKind::init);
    frame.number(type).number(level);
    FrameReader reply(call(variables_frame(frame, variables), "starting the operation"));
    int status = reply.number();
    if (std::string other = reply.text(); !other.empty())
        throw ClientError(
            ExitCode::server_error,
            fmt::format(
                "the server's library works with the data directory {}, but notes.ini names {}",
                for_terminal(other), for_terminal(m_options.data_directory)),
            "it has read another notes.ini: nothing was done; is the one of "
            "--notes-ini this server's?");
    return status;
}

ModuleItem ModuleHost::get_item() {
    FrameReader reply(call(FrameWriter(FrameKind::get_item).finish(), "listing the next item"));
    int status = reply.number();
    return {status, reply.text()};
}

ModuleItem ModuleHost::prepare(const std::string& item) {
    FrameReader reply(call(FrameWriter(FrameKind::prepare).text(item).finish(),
                           "preparing " + for_terminal(item)));
    int status = reply.number();
    return {status, reply.text()};
}

ModuleItem ModuleHost::set_item(DB_ITEM_TYPE type, const std::string& item) {
    FrameReader reply(call(FrameWriter(FrameKind::set_item).number(type).text(item).finish(),
                           "announcing " + for_terminal(item)));
    int status = reply.number();
    return {status, reply.text()};
}

int ModuleHost::finish(DB_ITEM_RESULT result) {
    return FrameReader(
               call(FrameWriter(FrameKind::finish).number(result).finish(), "finishing an item"))
        .number();
}

int ModuleHost::close(const std::vector<std::string>& variables) {
    FrameWriter frame(FrameKind::close);
    int status =
        FrameReader(call(variables_frame(frame, variables), "closing the operation")).number();
    return status;
}

ModuleError ModuleHost::error() {
    FrameReader reply(call(FrameWriter(FrameKind::get_error).finish(), "asking for its error"));
    reply.number();
    ModuleError error;
    error.code = std::stoul(reply.text());
    error.type = reply.text();
    error.message = reply.text();
    return error;
}

} // namespace qrtln
