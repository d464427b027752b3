#include "client/restore/selection_search.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/sets/catalogue.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

bool SelectionSearch::counts(const Manifest& manifest) const {
    if (request.ended_before && manifest.ended >= *request.ended_before)
        return false;
    if (request.at.empty())
        return true;
    if (!moment.set_prefix.empty())
        return manifest.set.substr(0, compact_time_length) <= moment.set_prefix;
    return manifest.started <= moment.time;
}

std::int64_t SelectionSearch::late_copy(const Manifest& manifest, const ManifestItem& item) const {
    if (request.at.empty() || !moment.set_prefix.empty() || item.kind == ItemKind::directory)
        return 0;
    std::int64_t copied = item.copied != 0 ? item.copied : manifest.ended + 1;
    return copied > moment.time ? copied : 0;
}

namespace {

std::string oldest_copy(const SelectionSearch& search, const SelectedName& name) {
    std::int64_t oldest = 0;
    for (const auto& [path, looked_for] : search.looked_for)
        if (looked_for.late != 0 && is_below(path, name.path) &&
            (oldest == 0 || looked_for.late < oldest))
            oldest = looked_for.late;
    return oldest == 0 ? "" : ": its oldest copy was complete at " + utc_time(oldest);
}

// Where the moment is too early: the first set that would do, and the moment that takes it. Of one
// item, or of the whole system without it.
std::string earliest_set(const SelectionSearch& search, const SelectedName* name) {
    if (!search.request.set.empty() || (search.request.at.empty() && !search.request.ended_before))
        return {};
    for (const std::string& set : search.store.set_names()) {
        throw_if_interrupted();
        CatalogueEntry entry = load_set(search.store, set, search.scope);
        if (!entry.manifest)
            continue;
        const Manifest& manifest = *entry.manifest;
        bool whole = manifest.complete && manifest.whole_system &&
                     (manifest.level == "full" || manifest.level == "copy");
        bool does = name == nullptr ? whole
                                    : std::any_of(manifest.items.begin(), manifest.items.end(),
                                                  [&](const ManifestItem& item) {
                                                      return item.status == ItemStatus::stored &&
                                                             item.kind != ItemKind::directory &&
                                                             is_below(item.path, name->path);
                                                  });
        bool in_time =
            complete_at(manifest) <= search.request.ended_before.value_or(search.moment.time);
        bool counted = search.counts(manifest) && (!search.moment.set_prefix.empty() || in_time);
        if (does && counted)
            return {}; // the time is not what is wrong
        if (does)
            return fmt::format(": the earliest is {}, complete at {}", set,
                               utc_time(complete_at(manifest)));
    }
    return {};
}

} // namespace

void require_found(const SelectionSearch& search) {
    // A proof gives both, of which nobody typed one.
    std::string where =
        !search.request.set.empty() ? "the set " + for_terminal(search.request.set)
        : !search.request.at.empty()
            ? fmt::format("no set up to {}'{}'", search.request.ended_before ? "" : "--at ",
                          for_terminal(search.request.at))
        : search.request.ended_before
            ? "no set that ended before --to " + utc_time(*search.request.ended_before)
            : "no set";
    std::string hint = search.request.ended_before
                           ? "databases can be recovered to moments after the end of a set that "
                             "has them; `qrtln list` shows the sets"
                           : "name what is to be restored, or a set with --set; `qrtln list` shows "
                             "them";
    auto refuse = [&](const std::string& problem, const std::string& first,
                      const std::string& advice) {
        OtherServers others = other_servers(search.store, search.scope);
        throw ClientError(ExitCode::no_such,
                          problem + first + (others.what.empty() ? "" : "; " + others.what),
                          (first.empty() ? advice : "take that time or a later one") +
                              (others.hint.empty() ? "" : "; " + others.hint));
    };
    if (search.request.all && !search.base_found)
        refuse(fmt::format("{} in {} is a complete full or copy set of the whole server {}", where,
                           search.store.description(), for_terminal(search.scope.data_directory)),
               earliest_set(search, nullptr), hint);
    for (const SelectedName& name : search.names) {
        if (name.found)
            continue;
        std::string first = oldest_copy(search, name);
        if (first.empty())
            first = earliest_set(search, &name);
        refuse(fmt::format("{} {} '{}' ({})", where,
                           search.request.set.empty() ? "holds" : "does not hold",
                           for_terminal(name.given), for_terminal(name.path)),
               first,
               "relative names are below the data directory; `qrtln show` lists what a set holds");
    }
}

// Perhaps it did not exist at that moment, perhaps an older copy is damaged or was never made.
std::vector<std::string> warnings_about_late(const SelectionSearch& search) {
    std::vector<std::string> warnings;
    for (const auto& [path, looked_for] : search.looked_for) {
        ItemKind kind = item_kind_of(path);
        if (looked_for.late != 0 && (kind == ItemKind::database || kind == ItemKind::file))
            warnings.push_back(fmt::format("{} is left out: its oldest copy was complete at {}",
                                           path, utc_time(looked_for.late)));
    }
    return warnings;
}

} // namespace qrtln
