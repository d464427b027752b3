#include "client/restore/run.h"

#include "client/base/output.h"
#include "client/base/text.h"

#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

void RestoreRun::fail(const PlannedItem& planned, const std::string& told) {
    std::string reason = to.in_text(told);
    print_message(
        fmt::format("failed: {}: {}", for_terminal(planned.item.path), for_terminal(reason)));
    result.failed.push_back({planned.item.path, reason});
}

void RestoreRun::note_kept(const PlannedItem& planned) {
    if (!kept.empty())
        result.kept_replaced.push_back({planned.target, kept});
    kept.clear();
}

void RestoreRun::forget_kept(const PlannedItem& planned) {
    if (!kept.empty() && ::unlink(kept.c_str()) != 0)
        warn(fmt::format("{}: was not replaced, but what was kept of it could not be removed: {}",
                         planned.target, kept));
    kept.clear();
}

std::string relative_folder(const std::string& relative) {
    std::size_t slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

} // namespace qrtln
