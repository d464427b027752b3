// `qrtln lock`: who uses a store, and backs up a server, at the moment.

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/domino/notes_ini.h"
#include "client/store/lock_state.h"
#include "client/store/store.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* lock_help =
    R"(Show who uses the store: the process that writes to it, and those that read contents of sets,
which `qrtln forget` leaves alone; with --notes-ini also the run that backs up databases of that
server. Nobody is disturbed by the asking. Of a store elsewhere the first and the readers are those
of this machine, and "claim" is who wrote down there that it writes, on whatever machine.
A lock is the kernel's: it ends with the process that has it and the process of the module, however
they end, and is never broken while one of them lives. STATE is
  free   nobody has it
  held   a process of this host has it
  left   its process ended without releasing it; the next command that writes takes it over
  noted  a process of another host, or container, noted that it has it; whether it lives is not
         seen from here
SINCE is when the process took the lock to write, of the others when the process began.)";

struct LockOptions : StoreOptions {
    std::string notes_ini;
};

class LockReport {
  public:
    void add(const std::string& name, const UsedLock& lock);
    void print(const Store& store, bool json) const;

  private:
    Table m_table{{"LOCK", "STATE", "PROCESS ", "HOST", "USER", "SINCE", "SETS ", "COMMAND"}};
    nlohmann::json m_locks = nlohmann::json::array();
};

void LockReport::add(const std::string& name, const UsedLock& lock) {
    const ProcessNote process = lock.process.value_or(ProcessNote{});
    auto shown = [](const std::string& text) { return text.empty() ? "-" : for_terminal(text); };
    m_table.add({name, lock_state_name(lock.state),
                 process.process == 0 ? "-" : std::to_string(process.process), shown(process.host),
                 shown(process.user), process.since == 0 ? "-" : utc_time(process.since),
                 lock.sets.empty() ? "-" : std::to_string(lock.sets.size()),
                 shown(process.command)});
    nlohmann::json document = process_json(process);
    document.update({{"lock", name}, {"state", lock_state_name(lock.state)}});
    if (!lock.sets.empty())
        document["sets"] = lock.sets;
    m_locks.push_back(std::move(document));
}

void LockReport::print(const Store& store, bool json) const {
    if (json)
        print_json({{"command", "lock"},
                    {"store", printable_utf8(store.address())},
                    {"locks", m_locks},
                    {"exit_code", static_cast<int>(ExitCode::complete)}});
    else
        print_output(m_table.text());
}

UsedLock server_lock(const std::string& notes_ini) {
    const std::string directory = load_notes_ini(notes_ini).data_directory;
    FileDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot open the data directory {}: {}",
                                      for_terminal(directory), system_error_text(errno)));
    return state_of_lock(folder.get(), false);
}

int run_lock(const LockOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    LockReport report;
    report.add("store", writer_of(*store));
    if (is_elsewhere(options.store))
        report.add("claim", claim_of(*store));
    for (const UsedLock& reader : readers_of(*store, store->set_names()))
        report.add("reader", reader);
    if (!options.notes_ini.empty())
        report.add("server", server_lock(options.notes_ini));
    report.print(*store, options.json);
    return static_cast<int>(ExitCode::complete);
}

void add_lock(CLI::App& command, CommandRuns& runs) {
    auto& lock = runs.add(command, run_lock);
    add_store_options(command, lock);
    command
        .add_option("--notes-ini", lock.notes_ini, "A server's notes.ini: also who backs that up")
        ->type_name("FILE");
}

} // namespace

const Command lock_command = {"lock", lock_help, add_lock};

} // namespace qrtln
