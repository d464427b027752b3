// `qrtln convert`: brings a store of an earlier release into the format of this one.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/sets/convert_sets.h"
#include "client/store/block_hash.h"
#include "client/store/canonical_json.h"
#include "client/store/store.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* convert_help =
    R"(Bring the store of an earlier release into the format of this one: its databases in blocks, so
that what did not change from set to set is there once. Earlier releases cannot read it then.
Each set is read back before it counts, and what only the old form needed goes at the end: until then
the store needs room for both. What is interrupted goes on when it is called again.)";

struct ConvertOptions : StoreOptions {
    CompressionLevel compression = usual_compression;
    std::uint32_t block_size = 0; // the usual, or that of a store that is half converted
};

int report(const ConvertedSets& done, bool json) {
    int code =
        static_cast<int>(done.left_over.empty() ? ExitCode::complete : ExitCode::items_failed);
    if (json) {
        print_json({{"command", "convert"},
                    {"sets", done.sets},
                    {"contents", done.contents},
                    {"freed_bytes", done.freed_bytes},
                    {"left_over", printable_list(done.left_over)},
                    {"exit_code", code}});
        return code;
    }
    std::string text;
    for (const std::string& left : done.left_over)
        text += fmt::format("stays as it is: {}\n", left);
    text += fmt::format("{} sets are in the format of this release: {} contents converted, {} "
                        "freed\n",
                        done.sets, done.contents, human_bytes(done.freed_bytes));
    print_report(text, code);
    return code;
}

int run_convert(const ConvertOptions& options) {
    install_interrupt_handlers();
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::change);
    store->compress_at(options.compression);
    if (store->block_size() == 0)
        store->add_packs(options.block_size != 0 ? options.block_size : usual_block);
    else if (options.block_size != 0 && options.block_size != store->block_size())
        throw ClientError(ExitCode::failed,
                          fmt::format("{} has blocks of {} bytes already", store->description(),
                                      store->block_size()),
                          "leave --block-size out");
    return report(convert_sets(*store), options.json);
}

void add_convert(CLI::App& command, CommandRuns& runs) {
    auto& convert = runs.add(command, run_convert);
    add_store_options(command, convert);
    add_lock_wait_option(command);
    add_compression_option(command, convert.compression);
    add_block_size_option(command, convert.block_size);
}

} // namespace

const Command convert_command = {"convert", convert_help, add_convert};

} // namespace qrtln
