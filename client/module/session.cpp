#include "client/module/session.h"

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/module/control_variables.h"
#include "client/module/environment.h"
#include "client/module/told.h"

#include <fcntl.h>
#include <fmt/format.h>

namespace qrtln {

namespace {

// A command may run the module several times.
void warn_once(const std::string& warning) {
    static std::set<std::string> told;
    if (told.insert(warning).second)
        print_warnings({warning});
}

void compare_program_directory(const std::string& trace_line, const NotesIni& ini) {
    std::optional<ReportedDirectory> reported = parse_reported_directory(trace_line);
    if (reported && reported->kind == ReportedDirectory::Kind::program &&
        !ini.program_directory.empty() && !is_same_place(reported->path, ini.program_directory))
        warn_once(fmt::format(
            "the server's library takes {} for its program directory, but NotesProgram of {} is {}",
            reported->path, ini.file, ini.program_directory));
}

} // namespace

FileDescriptor open_trace_file(const std::string& file) {
    if (file.empty())
        return {};
    FileDescriptor trace(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!trace)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot open the trace file {}: {}", for_terminal(file),
                                      system_error_text(errno)));
    return trace;
}

ModuleSession::ModuleSession(const OperationContext& context, Observer on_log, Observer on_trace)
    : m_context(context), m_on_log(std::move(on_log)), m_module_file(find_module(context.module)),
      m_runtime(context.runtime_directory.empty() ? context.store.runtime_directory()
                                                  : context.runtime_directory,
                context.tmp_dir, context.ini.data_directory) {
    ModuleOptions module;
    module.module_file = m_module_file;
    module.runtime_directory = m_runtime.path();
    module.user = server_user(context.ini.data_directory);
    ModuleEnvironment environment = module_environment(context.ini);
    for (const std::string& warning : environment.warnings)
        warn_once(warning);
    module.environment = std::move(environment.variables);
    module.data_directory = context.ini.data_directory;
    module.call_timeout = context.call_timeout;
    module.on_log = [this](const std::string& line) { this->on_log(line); };
    if (context.verbose)
        module.on_notice = [](const std::string& text) { print_message(for_terminal(text)); };
    // A trace that cannot be written must not fail the operation.
    module.on_trace = [&context, observe = std::move(on_trace)](const std::string& line) {
        if (context.trace >= 0)
            (void)write_all(context.trace, as_bytes(fmt::format("trace: {}\n", line)));
        compare_program_directory(line, context.ini);
        if (observe)
            observe(line);
    };
    m_host.emplace(std::move(module));
}

void ModuleSession::on_log(const std::string& line) {
    m_last_log_line = line;
    if (m_context.verbose)
        print_message("module: " + for_terminal(line));
    if (m_context.trace >= 0)
        (void)write_all(m_context.trace, as_bytes(fmt::format("log: {}\n", line)));
    if (m_on_log)
        m_on_log(line);
}

int ModuleSession::init(DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level,
                        std::vector<std::string> variables) {
    variables.insert(variables.begin(), notes_ini_variable(m_context.ini.file));
    if (type == DB_TYPE_BCK)
        m_runtime.lend_index();
    m_open = true;
    return m_host->init(type, level, variables);
}

void ModuleSession::report_failed_start(const std::string& what, const std::string& reason,
                                        std::string hint) {
    throw_if_interrupted();
    if (hint.empty())
        hint = loader_hint(reason, m_context.ini);
    if (hint.empty()) {
        hint = says_library_missing(reason)
                   ? "set Notes_ExecDirectory to the folder of the server's libnotes.so, or "
                     "NotesProgram in " +
                         for_terminal(m_context.ini.file)
                   : "look at the server's console; --verbose shows what the module did";
    }
    throw ClientError(
        ExitCode::server_error,
        fmt::format("cannot start the {} on the server: {}", what, for_terminal(reason)), hint);
}

int ModuleSession::finish(DB_ITEM_RESULT result) {
    m_item_pending = false;
    return m_host->finish(result);
}

Preparation ModuleSession::prepare(const std::string& path) {
    Preparation prepared;
    auto attempt = [&] {
        prepared.item = m_host->prepare(path);
        prepared.usable =
            (prepared.item.status == DB_NUM_I_OK || prepared.item.status == DB_NUM_W_WARNING) &&
            !prepared.item.name.empty();
    };
    attempt();
    if (!prepared.usable && interrupt_signal() == 0) {
        prepared.first_problem = reason();
        attempt();
    }
    return prepared;
}

std::set<std::string>
ModuleSession::take_copies(const std::string& what, const std::string& tmp_dir,
                           const std::map<std::string, std::string>& databases,
                           const std::function<bool(const std::string& path)>& take) {
    std::set<std::string> missing;
    std::vector<std::string> variables = {tmp_dir_variable(tmp_dir)};
    for (const auto& [path, value] : databases) {
        missing.insert(path);
        variables.push_back(database_variable(value));
    }
    if (init(DB_TYPE_BCK, DB_LEVEL_COPY, std::move(variables)) != DB_NUM_I_OK)
        report_failed_start(what, reason());
    for (;;) {
        throw_if_interrupted();
        forget_reasons();
        ModuleItem next = m_host->get_item();
        if (next.status != DB_NUM_I_OK)
            break;
        item_begun();
        bool wanted = missing.erase(next.name) > 0;
        bool good = wanted && take(next.name);
        (void)finish(!wanted ? DB_ITEM_EXCLUDED : good ? DB_ITEM_SUCCESS : DB_ITEM_FAIL);
    }
    (void)close(false);
    return missing;
}

void ModuleSession::finish_failed() {
    if (m_item_pending)
        (void)finish(DB_ITEM_FAIL);
}

int ModuleSession::close(bool good) {
    m_open = false;
    return m_host->close({status_variable(good)});
}

void ModuleSession::abandon() noexcept {
    try {
        if (m_host && m_host->running()) {
            finish_failed();
            if (m_open)
                (void)close(false);
        }
    } catch (...) {
        // The child is gone or unusable; its end is waited for below.
    }
    m_host.reset();
}

std::string ModuleSession::reason() {
    std::string reason = m_host->error().message;
    if (reason.empty())
        reason = m_last_log_line;
    return reason.empty() ? "the module gave no reason" : printable_utf8(reason);
}

void ModuleSession::forget_reasons() {
    (void)m_host->error();
    m_last_log_line.clear();
}

} // namespace qrtln
