#include "client/module_host.h"

#include "client/error.h"
#include "client/interrupt.h"
#include "client/module_process.h"
#include "client/module_protocol.h"
#include "client/text.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace qrtln {

namespace {

constexpr const char* module_name = "libqrtln.so";
// The name with the version of the interface that this client is written for.
constexpr const char* module_soname = "libqrtln.so.1";

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
        std::string library_directory = own.substr(0, own.rfind('/')) + "/lib/";
        for (const char* name : {module_name, module_soname})
            if (::access((library_directory + name).c_str(), R_OK) == 0)
                return library_directory + name;
    }
    return module_soname;
}

ModuleHost::ModuleHost(ModuleOptions options) : m_options(std::move(options)) {
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        throw ClientError(ExitCode::failed,
                          "cannot create a socket pair: " + system_error_text(errno));
    m_socket = FileDescriptor(sockets[0]);
    FileDescriptor child_socket(sockets[1]);
    std::fflush(nullptr);
    pid_t own_pid = ::getpid();
    {
        InterruptsBlocked blocked;
        m_pid = ::fork();
        if (m_pid == 0) {
            m_socket.reset();
            run_module_process(child_socket.get(), m_options, own_pid);
        }
    }
    if (m_pid < 0)
        throw ClientError(ExitCode::failed,
                          "cannot start a process for the module: " + system_error_text(errno));
    m_started_pid = m_pid;
    child_socket.reset();
    FrameReader answer(wait_for_reply("loading " + m_options.module_file));
    if (answer.number() != DB_NUM_I_OK) {
        std::string text = answer.text();
        wait_for_child();
        throw ClientError(ExitCode::server_error,
                          "cannot load the module " + for_terminal(m_options.module_file) + ": " +
                              for_terminal(text),
                          "name the file with --module or QRTLN_MODULE");
    }
}

ModuleHost::~ModuleHost() {
    if (m_pid <= 0)
        return;
    // A copy that runs is stopped; the end of the connection makes the child close its operation.
    ::kill(m_pid, SIGTERM);
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

void ModuleHost::report_end(const std::string& doing) {
    m_socket.reset();
    int status = wait_for_child();
    std::string how;
    if (WIFSIGNALED(status)) {
        int signal = WTERMSIG(status);
        how = "crashed with signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
    } else {
        how = "ended the process with exit status " + std::to_string(WEXITSTATUS(status));
    }
    throw ClientError(ExitCode::server_error, "the server's library " + how + " while " + doing,
                      "look into the server's console and log; the next backup clears what the "
                      "failed one left on the server");
}

void ModuleHost::forward_interrupt() {
    if (interrupt_signal() != 0 && !m_interrupt_forwarded && m_pid > 0) {
        m_interrupt_forwarded = true;
        ::kill(m_pid, SIGTERM);
    }
}

std::string ModuleHost::wait_for_reply(const std::string& doing) {
    for (;;) {
        forward_interrupt();
        pollfd ready[2] = {{m_socket.get(), POLLIN, 0}, {interrupt_descriptor(), POLLIN, 0}};
        // Once the interruption is passed on, only the reply matters.
        nfds_t count = m_interrupt_forwarded || interrupt_descriptor() < 0 ? 1 : 2;
        if (::poll(ready, count, -1) < 0 && errno != EINTR)
            throw ClientError(ExitCode::failed,
                              "cannot wait for the module: " + system_error_text(errno));
        if ((ready[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
            continue;
        std::string payload;
        switch (receive_frame(m_socket.get(), payload)) {
        case ReceiveResult::closed:
            report_end(doing);
        case ReceiveResult::failed:
            throw ClientError(ExitCode::server_error,
                              "cannot read from the module's process while " + doing + ": " +
                                  system_error_text(errno));
        case ReceiveResult::frame:
            break;
        }
        FrameReader frame(payload);
        if (frame.kind() == FrameKind::reply)
            return payload;
        if (frame.kind() == FrameKind::log && m_options.on_log)
            m_options.on_log(frame.text());
        if (frame.kind() == FrameKind::trace && m_options.on_trace)
            m_options.on_trace(frame.text());
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
    FrameWriter frame(FrameKind::init);
    frame.number(type).number(level);
    return FrameReader(call(variables_frame(frame, variables), "starting the operation")).number();
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
