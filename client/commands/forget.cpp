// `qrtln forget`: sets that are no longer wanted go, and what only they needed; or sets that are
// gone for good are no longer missed.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/forget_sets.h"
#include "client/commands/options.h"
#include "client/store/store.h"

namespace qrtln {

namespace {

constexpr const char* forget_help =
    R"(Forget sets, by name or by a policy, and take back the room that only they used.
A policy keeps the sets that one of its options names, and what these build on. It is applied to each
server by itself. Whatever it says, these stay: the newest full set of the whole server and what came
after it, the newest set that has a database, and sets that somebody reads.
A missing set is named to say that it is gone for good.)";

struct ForgetOptions : StoreOptions {
    ForgetRequest request;
};

int run_forget(const ForgetOptions& options) {
    install_interrupt_handlers();
    if (options.request.sets.empty() && !options.request.policy.any())
        throw ClientError(ExitCode::usage, "nothing says which sets are to be forgotten",
                          "name sets, or give one of the options --keep-…");
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::change);
    Forgetting done = forget_sets(*store, options.request);
    if (options.json)
        print_json(forgetting_json(done));
    else
        options.request.dry_run ? print_output(forgetting_text(done, true))
                                : print_report(forgetting_text(done, true), 0);
    return 0;
}

void add_forget(CLI::App& command, CommandRuns& runs) {
    auto& forget = runs.add(command, run_forget);
    add_store_options(command, forget);
    add_lock_wait_option(command);
    command.add_option("SET", forget.request.sets, "The sets' names, or the beginnings of them");
    add_policy_options(command, forget.request);
    command.add_flag("--dry-run", forget.request.dry_run, "Only show what would go");
}

} // namespace

const Command forget_command = {"forget", forget_help, add_forget};

} // namespace qrtln
