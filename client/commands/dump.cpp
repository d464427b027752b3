// `qrtln dump SET PATH`: one content on standard output.

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/restore/object_content.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/sets/set_items.h"
#include "client/store/store.h"

#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr const char* dump_help =
    R"(Write one database or file of a set to standard output. Only exit code 0 says that what was
written is whole. Needs nothing but the store.)";

struct DumpOptions {
    std::string store;
    std::string set;
    std::string path;
};

constexpr const char* not_to_be_used = "; the output is not to be used";

const ManifestItem& only_content(const Manifest& manifest, const std::string& given) {
    std::vector<const ManifestItem*> items = items_named(manifest, given, "dump");
    const ManifestItem& item = *items[0];
    if (items.size() > 1 || item.kind == ItemKind::directory)
        throw ClientError(ExitCode::failed,
                          fmt::format("'{}' is a folder in the set {}: dump writes one content",
                                      for_terminal(given), manifest.set),
                          "`qrtln extract` writes what is below a folder to another one");
    if (item.status != ItemStatus::stored)
        throw ClientError(ExitCode::failed,
                          fmt::format("{} is not in the set {}: {}", for_terminal(item.path),
                                      manifest.set, for_terminal(item.reason)));
    return item;
}

int run_dump(const DumpOptions& options) {
    install_interrupt_handlers();
    if (::isatty(STDOUT_FILENO) == 1)
        throw ClientError(ExitCode::usage,
                          "dump writes the bytes of a database, which are not for a terminal",
                          "redirect them: `qrtln dump … > FILE`");
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    Manifest manifest = require_set(*store, options.set);
    store->hold_sets({manifest.set});
    const ManifestItem& item = only_content(manifest, options.path);
    WrittenContent written;
    try {
        written = read_content(*store, item, [](Bytes bytes) {
            throw_if_interrupted();
            int error = write_all(STDOUT_FILENO, bytes);
            return error == 0 ? std::string() : system_error_text(error);
        });
        // Some file systems tell only now that there was no room.
        if (written.whole() && ::close(STDOUT_FILENO) != 0 && errno != EINTR)
            written.problem = system_error_text(errno);
    } catch (const ClientError& failure) {
        throw ClientError(failure.exit_code(), failure.what() + std::string(not_to_be_used),
                          failure.hint());
    }
    if (!written.problem.empty())
        throw ClientError(ExitCode::failed, fmt::format("cannot write to standard output: {}{}",
                                                        written.problem, not_to_be_used));
    if (!written.damage.empty())
        throw ClientError(ExitCode::damage_found,
                          fmt::format("{} is damaged in the store: {}{}", for_terminal(item.path),
                                      for_terminal(written.damage), not_to_be_used),
                          "`qrtln verify` tells more; an older set may have a whole copy");
    return static_cast<int>(ExitCode::complete);
}

void add_dump(CLI::App& command, CommandRuns& runs) {
    auto& dump = runs.add(command, run_dump);
    add_store_option(command, dump.store);
    add_set_argument(command, dump.set);
    command.add_option("PATH", dump.path, "A database or a file of the set")->required();
}

} // namespace

const Command dump_command = {"dump", dump_help, add_dump};

} // namespace qrtln
