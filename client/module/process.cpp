#include "client/module/process.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/module/control_variables.h"
#include "client/module/frames.h"
#include "client/module/told.h"
#include "client/module/told_lines.h"
#include "qrt_lotus_notes/db_interface.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fmt/format.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::string_view runtime_prefix = "gv_rw_times:";

// Set once before the module is loaded.
std::string& runtime_directory() {
    static std::string directory;
    return directory;
}

} // namespace

extern "C" __attribute__((visibility("default"))) void resolve_path(char* path) {
    if (path == nullptr || std::strncmp(path, runtime_prefix.data(), runtime_prefix.size()) != 0)
        return;
    std::string_view name = path + runtime_prefix.size();
    const std::string& directory = runtime_directory();
    if (directory.empty() || name.find('/') != std::string_view::npos ||
        directory.size() + 1 + name.size() >= qrtln::module_path_size)
        return;
    std::string resolved = directory + "/" + std::string(name);
    std::memcpy(path, resolved.c_str(), resolved.size() + 1);
}

namespace qrtln {

namespace {

// The twelve entry points that the client drives, under their names.
struct EntryPoints {
    decltype(&DB_SetTrace) set_trace;
    decltype(&DB_SetLog) set_log;
    decltype(&DB_GetInfo) get_info;
    decltype(&DB_GetError) get_error;
    decltype(&DB_InitOperation) init_operation;
    decltype(&DB_GetItem) get_item;
    decltype(&DB_PrepareItem) prepare_item;
    decltype(&DB_SetItem) set_item;
    decltype(&DB_ItemFinishStatus) item_finish_status;
    decltype(&DB_CloseOperation) close_operation;
    decltype(&DB_Terminate) terminate;
};

// One for the process: the callbacks of the module carry no argument of ours.
struct Server {
    int socket = -1;
    std::optional<LineSender> lines;
    std::mutex send_mutex; // a trace text may come from the thread that calls DB_Terminate
    EntryPoints module{};
    std::string data_directory;
    std::string other_directory; // what the library reported in its place
    std::atomic<bool> operation_open{false};
    std::atomic<bool> stop_requested{false};
    bool item_pending = false; // main thread only
};

Server& server() {
    static Server instance;
    return instance;
}

void send(const std::string& frame) {
    std::lock_guard lock(server().send_mutex);
    // A client that went away is noticed by the next receive.
    (void)send_frame(server().socket, frame);
}

// Asks the client to take lines, and waits for that; false when it is gone.
bool wait_for_room() {
    if (send_frame(server().socket, FrameWriter(FrameKind::lines).finish()) != 0)
        return false;
    pollfd gone = {server().socket, 0, 0};
    while (server().lines->is_full())
        if (::poll(&gone, 1, 1) > 0)
            return false;
    return true;
}

void tell(LineKind kind, const char* text) {
    std::lock_guard lock(server().send_mutex);
    server().lines->send(kind, text, wait_for_room);
}

void reply(int status, const std::vector<std::string>& fields = {}) {
    FrameWriter frame(FrameKind::reply);
    frame.number(status);
    for (const std::string& field : fields)
        frame.text(field);
    send(frame.finish());
}

// The server's library is at home in the data directory. It goes there when the module has read its
// variables: it tests a DATABASE value as a relative path, and below "/" there is nothing of that
// name.
void enter_data_directory() {
    const std::string& directory = server().data_directory;
    if (!directory.empty() && ::chdir(directory.c_str()) != 0)
        send(FrameWriter(FrameKind::notice)
                 .text(fmt::format("the server's library runs in \"/\": cannot enter {}: {}",
                                   directory, system_error_text(errno)))
                 .finish());
}

extern "C" void on_module_log(const char* text) {
    if (text == nullptr)
        return;
    tell(LineKind::log, text);
    if (says_library_starts(text))
        enter_data_directory();
}

// The module lets no exception out of an entry point: this one makes the start of the operation
// fail before the server is asked for anything, and what was started is ended by the close.
struct OtherDataDirectory {};

extern "C" void on_module_trace(const char* text) {
    if (text == nullptr)
        return;
    tell(LineKind::trace, text);
    const std::string& expected = server().data_directory;
    std::optional<ReportedDirectory> reported = parse_reported_directory(text);
    if (!reported || reported->kind != ReportedDirectory::Kind::data || expected.empty() ||
        is_same_place(reported->path, expected))
        return;
    server().other_directory = reported->path;
    throw OtherDataDirectory();
}

template <typename Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

// Loads the module; returns an empty text, or why it could not be loaded.
std::string load(const std::string& file) {
    void* library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* text = ::dlerror();
        return text != nullptr ? text : "unknown error of the loader";
    }
    EntryPoints& module = server().module;
    bool complete = find(library, "DB_SetTrace", module.set_trace) &&
                    find(library, "DB_SetLog", module.set_log) &&
                    find(library, "DB_GetInfo", module.get_info) &&
                    find(library, "DB_GetError", module.get_error) &&
                    find(library, "DB_InitOperation", module.init_operation) &&
                    find(library, "DB_GetItem", module.get_item) &&
                    find(library, "DB_PrepareItem", module.prepare_item) &&
                    find(library, "DB_SetItem", module.set_item) &&
                    find(library, "DB_ItemFinishStatus", module.item_finish_status) &&
                    find(library, "DB_CloseOperation", module.close_operation) &&
                    find(library, "DB_Terminate", module.terminate);
    if (!complete) {
        const char* text = ::dlerror();
        return text != nullptr ? text : file + ": an entry point is missing";
    }
    return {};
}

// Waits for signals for as long as the process lives; all other threads have them blocked.
void serve_signals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        if (!is_ignored_hangup(signal)) // waiting for it would bring it all the same
            ::sigaddset(&signals, signal);
    for (;;) {
        int signal = 0;
        if (::sigwait(&signals, &signal) != 0)
            continue;
        server().stop_requested = true;
        if (server().operation_open)
            server().module.terminate();
    }
}

// The array of control variables in the form that the module takes.
class ControlVariables {
  public:
    explicit ControlVariables(FrameReader& frame) {
        m_texts.resize(static_cast<std::size_t>(frame.number()));
        for (std::string& text : m_texts)
            text = frame.text();
        for (std::string& text : m_texts)
            m_pointers.push_back(text.data());
        m_pointers.push_back(nullptr);
    }
    explicit ControlVariables(std::string text) : m_texts{std::move(text)} {
        m_pointers = {m_texts[0].data(), nullptr};
    }
    char** get() { return m_pointers.data(); }

  private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

using PathBuffer = std::array<char, module_path_size>;

std::string text_of(const PathBuffer& buffer) {
    return {buffer.data(), ::strnlen(buffer.data(), buffer.size())};
}

std::string text_of(const char* text) {
    return text != nullptr ? text : "";
}

void answer_info() {
    TYPE_DB_Info info{};
    int status = server().module.get_info(&info);
    reply(status, {text_of(info.cpDBClient), text_of(info.cpDBVersion), text_of(info.cpDBRelDate),
                   std::to_string(static_cast<int>(info.eDBType))});
}

void answer_init(FrameReader& frame) {
    auto type = static_cast<DB_OPERATION_TYPE>(frame.number());
    auto level = static_cast<DB_OPERATION_LEVEL>(frame.number());
    ControlVariables variables(frame);
    server().operation_open = true;
    int status = DB_NUM_E_FAILED;
    try {
        status = server().module.init_operation(type, level, variables.get(), nullptr);
    } catch (const OtherDataDirectory&) {
        // By a module that lets it out.
    }
    // The start of an operation clears the module's stop flag: set it again for an earlier signal.
    if (server().stop_requested)
        server().module.terminate();
    reply(status, {server().other_directory});
}

void answer_get_item() {
    PathBuffer backup_directory{};
    PathBuffer original_directory{};
    PathBuffer name{};
    int status =
        server().module.get_item(backup_directory.data(), original_directory.data(), name.data());
    server().item_pending = status == DB_NUM_I_OK;
    reply(status, {text_of(name)});
}

void answer_prepare(FrameReader& frame) {
    std::string item = frame.text();
    PathBuffer name{};
    int status = server().module.prepare_item(item.c_str(), name.data());
    reply(status, {text_of(name)});
}

void answer_set_item(FrameReader& frame) {
    auto type = static_cast<DB_ITEM_TYPE>(frame.number());
    std::string item = frame.text();
    if (item.size() >= module_path_size) {
        reply(DB_NUM_E_FAILED, {item});
        return;
    }
    PathBuffer name{};
    std::memcpy(name.data(), item.c_str(), item.size() + 1);
    int status = server().module.set_item(type, name.data());
    server().item_pending = status == DB_NUM_I_OK && type == DB_ITEM_TYPE_FILE;
    reply(status, {text_of(name)});
}

void answer_finish(FrameReader& frame) {
    auto result = static_cast<DB_ITEM_RESULT>(frame.number());
    server().item_pending = false;
    reply(server().module.item_finish_status(result));
}

void answer_close(FrameReader& frame) {
    ControlVariables variables(frame);
    server().operation_open = false;
    reply(server().module.close_operation(variables.get()));
}

void answer_error() {
    TYPE_DB_Error error{};
    int status = server().module.get_error(&error);
    error.szDBErrorType[sizeof error.szDBErrorType - 1] = '\0';
    error.szDBErrorMsg[sizeof error.szDBErrorMsg - 1] = '\0';
    reply(status, {std::to_string(error.ulDBErrorCode), error.szDBErrorType, error.szDBErrorMsg});
}

// The client is gone: what is open is given up, so that the server keeps its logs.
void abandon_operation() {
    if (server().item_pending)
        server().module.item_finish_status(DB_ITEM_FAIL);
    if (server().operation_open.exchange(false)) {
        ControlVariables failed(status_variable(false));
        server().module.close_operation(failed.get());
    }
}

void serve() {
    std::string payload;
    while (receive_frame(server().socket, payload) == ReceiveResult::frame) {
        FrameReader frame(payload);
        switch (frame.kind()) {
        case FrameKind::get_info:
            answer_info();
            break;
        case FrameKind::init:
            answer_init(frame);
            break;
        case FrameKind::get_item:
            answer_get_item();
            break;
        case FrameKind::prepare:
            answer_prepare(frame);
            break;
        case FrameKind::set_item:
            answer_set_item(frame);
            break;
        case FrameKind::finish:
            answer_finish(frame);
            break;
        case FrameKind::close:
            answer_close(frame);
            break;
        case FrameKind::get_error:
            answer_error();
            break;
        default:
            return; // no request of this client
        }
    }
}

} // namespace

OwnProcessStart module_process_start() {
    OwnProcessStart start;
    start.word = module_process_word;
    start.death_signal = SIGTERM;
    start.tells_lines = true;
    start.cannot_start = [](int socket, const std::string& reason) {
        server().socket = socket;
        reply(DB_NUM_E_FAILED, {reason});
    };
    return start;
}

bool is_module_process(int argc, char** argv) {
    return is_own_process(module_process_word, argc, argv);
}

namespace {

// Takes the first request, and loads the module as it says; false when that failed.
bool start(pid_t parent) {
    std::string payload;
    if (receive_frame(server().socket, payload) != ReceiveResult::frame)
        return false;
    FrameReader frame(payload);
    if (frame.kind() != FrameKind::start)
        return false;
    const std::string module_file = frame.text();
    runtime_directory() = frame.text();
    server().data_directory = frame.text();
    const std::optional<ServerUser> user = read_user(frame);
    std::string failure = user ? become(*user) : std::string();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM); // another user has lost it
    if (::getppid() != parent)          // it died before the line above
        ::_exit(1);
    std::thread(serve_signals).detach();
    if (failure.empty())
        failure = load(module_file);
    if (failure.empty()) {
        server().module.set_log(on_module_log);
        server().module.set_trace(on_module_trace);
    }
    reply(failure.empty() ? DB_NUM_I_OK : DB_NUM_E_FAILED, {failure});
    return failure.empty();
}

} // namespace

int run_module_process(int argc, char** argv) {
    try {
        const pid_t parent = ::getppid();
        int lines = -1;
        server().socket = inherited_socket(argc, argv, &lines);
        if (server().socket < 0)
            return static_cast<int>(ExitCode::usage);
        server().lines.emplace(lines);
        ::prctl(PR_SET_NAME, "qrtln-module");
        close_on_exec();
        redirect_standard_streams();
        if (::chdir("/") != 0)
            ::_exit(1);
        if (start(parent)) {
            serve();
            abandon_operation();
        }
        ::_exit(0);
    } catch (...) {
        // A frame that cannot be read or no memory: the client sees the end and reports it.
        ::_exit(1);
    }
}

} // namespace qrtln
