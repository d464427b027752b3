#include "client/recovery_probe.h"

#include "client/database_arguments.h"
#include "client/interrupt.h"
#include "client/since_time.h"
#include "client/temporary_directory.h"
#include "client/text.h"

#include <ctime>

namespace qrtln {

namespace {

// A differential backup opens each database to learn whether it needs one, before anything is
// copied. Returns why one of them could not be opened; empty when all could.
std::string ask(const OperationContext& context, const std::vector<std::string>& paths) {
    constexpr std::string_view not_opened = "Notes API NSFDbOpen() failure on file: ";
    TemporaryDirectory temporary(absolute_path(context.tmp_dir), context.ini.data_directory);
    std::vector<std::string> variables = {"TMP_DIR=" + temporary.path(),
                                          "SNC_TIME=" + since_time_text(std::time(nullptr))};
    for (const std::string& path : paths)
        variables.push_back("DATABASE=QRTLN:" + escape_last_component(path));
    bool failed = false;
    ModuleSession session(context, {}, [&](const std::string& line) {
        failed = failed || line.starts_with(not_opened);
    });
    if (session.init(DB_TYPE_BCK, DB_LEVEL_DIFF, std::move(variables)) != DB_NUM_I_OK)
        session.report_failed_start("check of recovered databases", session.reason());
    while (!failed && session.host().get_item().status == DB_NUM_I_OK) {
        throw_if_interrupted();
        session.item_begun();
        (void)session.finish(DB_ITEM_EXCLUDED); // modified meanwhile, so that it was opened
    }
    std::string reason = failed ? session.reason() : "";
    (void)session.close(false); // nothing of this is a backup
    return reason;
}

// The protocol shows paths cut: what is found there is found among fewer and fewer.
void narrow_down(const OperationContext& context, const std::vector<std::string>& paths,
                 std::map<std::string, std::string>& found) {
    if (paths.empty())
        return;
    std::string reason = ask(context, paths);
    if (reason.empty())
        return;
    if (paths.size() == 1) {
        found[paths.front()] = reason;
        return;
    }
    auto middle = paths.begin() + static_cast<std::ptrdiff_t>(paths.size() / 2);
    narrow_down(context, {paths.begin(), middle}, found);
    narrow_down(context, {middle, paths.end()}, found);
}

} // namespace

std::map<std::string, std::string> find_unopenable(const OperationContext& context,
                                                   const std::vector<std::string>& paths) {
    std::map<std::string, std::string> found;
    narrow_down(context, paths, found);
    return found;
}

} // namespace qrtln
