#include "client/acceptance/probe_process.h"

#include "client/acceptance/database_trial.h"
#include "client/acceptance/log_trial.h"
#include "client/acceptance/probes.h"
#include "client/acceptance/teller.h"
#include "client/base/error.h"
#include "client/domino/notes_ini.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <sys/prctl.h>
#include <unistd.h>

namespace qrtln::acceptance {

namespace {

constexpr const char* probe_process_word = "probe-process";

using Probe = void (*)(Teller& teller, const ProbeRequest& request);

struct GroupEntry {
    Group group;
    Step step;
    Probe probe;
};
constexpr std::array groups = {
    GroupEntry{Group::start, Step::runtime, probe_start},
    GroupEntry{Group::second_start, Step::runtime, probe_second_start},
    GroupEntry{Group::names_and_times, Step::names_and_times, probe_names_and_times},
    GroupEntry{Group::databases, Step::databases, probe_databases},
    GroupEntry{Group::log_style, Step::log_style, probe_log_style},
    GroupEntry{Group::quiet_backup, Step::test_database, trial_quiet_backup},
    GroupEntry{Group::busy_backup, Step::test_database, trial_busy_backup},
    GroupEntry{Group::recovery, Step::test_database, trial_recovery},
    GroupEntry{Group::offline, Step::test_database, trial_offline},
    GroupEntry{Group::list_logs, Step::logs, trial_list_logs},
    GroupEntry{Group::mark_log, Step::logs, trial_mark_log},
};

const GroupEntry& entry_of(Group group) {
    for (const GroupEntry& entry : groups)
        if (entry.group == group)
            return entry;
    throw std::runtime_error("there is no such group of calls");
}

Group read_request(FrameReader& frame, ProbeRequest& request) {
    const auto group = static_cast<Group>(frame.number());
    request.user = read_user(frame);
    NotesIni& ini = request.ini;
    for (std::string* text :
         {&ini.file, &ini.data_directory, &ini.program_directory, &request.folder,
          &request.log_folder, &request.test_database.path, &request.test_database.shown})
        *text = frame.text();
    for (bool* style : {&ini.logging, &ini.archives_logs, &ini.linear_logging})
        *style = frame.number() != 0;
    request.databases.resize(static_cast<std::size_t>(frame.number()));
    for (NamedDatabase& database : request.databases) {
        database.path = frame.text();
        database.shown = frame.text();
    }
    return group;
}

// What the library finds in its process.
void prepare_library_process(const ProbeRequest& request) {
    // A crash must not take the library's last words.
    (void)std::setvbuf(stdout, nullptr, _IONBF, 0);
    (void)::signal(SIGPIPE, SIG_IGN);
    if (::chdir("/") != 0)
        throw std::runtime_error("cannot enter /: " + system_error_text(errno));
    if (std::string failure = request.user ? become(*request.user) : ""; !failure.empty())
        throw std::runtime_error(failure);
}

void run_group(int socket, Group group, const ProbeRequest& request) {
    const GroupEntry& entry = entry_of(group);
    Teller teller(socket, entry.step);
    try {
        prepare_library_process(request);
        entry.probe(teller, request);
    } catch (const Surprise& surprise) {
        teller.send(surprise.finding);
    } catch (const std::exception& failure) {
        teller.send({entry.step, own_failure, Verdict::stop, failure.what(), {}, false});
    }
    teller.done();
}

} // namespace

Step step_of(Group group) {
    return entry_of(group).step;
}

OwnProcessStart probe_process_start(const ProbeRequest& request, int output) {
    OwnProcessStart start;
    start.word = probe_process_word;
    start.environment = request.environment;
    start.output = output;
    start.cannot_start = [](int socket, const std::string& reason) {
        Teller teller(socket, Step::runtime);
        teller.send({Step::runtime, own_failure, Verdict::stop, reason, {}, false});
        teller.done();
    };
    return start;
}

std::string request_frame(Group group, const ProbeRequest& request) {
    FrameWriter frame(FrameKind::start);
    frame.number(static_cast<std::int32_t>(group));
    write_user(frame, request.user);
    const NotesIni& ini = request.ini;
    for (const std::string* text :
         {&ini.file, &ini.data_directory, &ini.program_directory, &request.folder,
          &request.log_folder, &request.test_database.path, &request.test_database.shown})
        frame.text(*text);
    for (bool style : {ini.logging, ini.archives_logs, ini.linear_logging})
        frame.number(style ? 1 : 0);
    frame.number(static_cast<std::int32_t>(request.databases.size()));
    for (const NamedDatabase& database : request.databases)
        frame.text(database.path).text(database.shown);
    return frame.finish();
}

bool is_probe_process(int argc, char** argv) {
    return is_own_process(probe_process_word, argc, argv);
}

int run_probe_process(int argc, char** argv) {
    try {
        const int socket = inherited_socket(argc, argv);
        if (socket < 0)
            return static_cast<int>(ExitCode::usage);
        ::prctl(PR_SET_NAME, "qrtln-probe");
        close_on_exec();
        redirect_standard_streams();
        std::string payload;
        if (receive_frame(socket, payload) != ReceiveResult::frame)
            ::_exit(1);
        FrameReader frame(payload);
        ProbeRequest request;
        const Group group = read_request(frame, request);
        run_group(socket, group, request);
    } catch (const ClientGone&) {
        // Everything is undone, and nobody is there to be told.
    } catch (...) {
        ::_exit(1); // a request that cannot be read, or no memory: the client sees the end
    }
    ::_exit(0); // no handler of the library's runs any more
}

} // namespace qrtln::acceptance
