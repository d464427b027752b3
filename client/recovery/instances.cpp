#include "client/recovery/instances.h"

#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/server_scope.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

// What the module answers when it prepares a database that no transaction log covers.
constexpr int prepared_not_logged = 2000;

using State = LiveDatabase::State;

// The newest of the copies from this one on that are the same instance, without a restore between.
std::vector<SavedCopy>::const_iterator last_of_run(const std::vector<SavedCopy>& copies,
                                                   std::vector<SavedCopy>::const_iterator first) {
    auto last = first;
    for (auto next = first + 1;
         next != copies.end() && next->dbiid == first->dbiid && !next->restored; ++next)
        last = next;
    return last;
}

std::vector<SavedCopy>::const_iterator find_copy(const std::vector<SavedCopy>& copies,
                                                 const std::string& set) {
    return std::find_if(copies.begin(), copies.end(),
                        [&](const SavedCopy& copy) { return copy.set == set; });
}

bool is_instance(const LiveDatabase& live, const SavedCopy& copy) {
    return live.state == State::logged && live.dbiid == copy.dbiid;
}

} // namespace

SavedCopies load_saved_copies(Store& store, const ServerScope& scope,
                              const std::set<std::string>& paths) {
    SavedCopies copies;
    if (paths.empty())
        return copies;
    for (const std::string& set : store.set_names()) {
        CatalogueEntry entry = load_set(store, set, scope);
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (item.status == ItemStatus::stored && paths.contains(item.path))
                copies[item.path].push_back(saved_copy(set, item));
    }
    return copies;
}

SavedCopy saved_copy(const std::string& set, const ManifestItem& item) {
    return {set, item.object, item.dbiid, item.copied, item.restored};
}

// At copy level the module does not answer that a database is not logged: there is then no identity
// in a set that would have it.
bool is_not_logged(const ManifestItem& item) {
    return item.prepare_status == prepared_not_logged || (item.copied != 0 && item.dbiid.empty());
}

std::string reason_to_keep(const LiveDatabase* live, bool restored,
                           const std::vector<SavedCopy>& copies) {
    constexpr const char* advice = "what it holds since then is in no set. `qrtln backup --level "
                                   "copy` (or incr) saves it; --replace-live replaces it all the "
                                   "same";
    const SavedCopy& newest = copies.back();
    switch (live == nullptr ? State::not_asked : live->state) {
    case State::not_asked:
        break;
    case State::unopenable:
        return {};
    case State::untold:
        return fmt::format("the server does not tell which instance the live database is ({}), so "
                           "that it may hold what no set leads to; --replace-live replaces it all "
                           "the same",
                           live->reason);
    case State::logged:
        if (newest.dbiid.empty())
            return fmt::format("the live database is transaction-logged, and its newest saved "
                               "copy, in the set {}, is not, or not known to be the same instance: "
                               "{}",
                               newest.set, advice);
        if (live->dbiid != newest.dbiid)
            return fmt::format("the live database is another instance than its newest saved copy, "
                               "in the set {} (since a compaction, a restore or a repair): {}",
                               newest.set, advice);
        break;
    case State::not_logged:
        if (!newest.dbiid.empty())
            return fmt::format("the live database is not transaction-logged any more, as its "
                               "newest saved copy, in the set {}, was: {}",
                               newest.set, advice);
        break;
    }
    if (restored)
        return std::string("a restore or recovery put it in place, or began to, and it is not "
                           "saved since: ") +
               advice;
    return {};
}

std::string reason_against_older(const std::vector<SavedCopy>& copies, const std::string& set,
                                 const std::set<std::string>& damaged) {
    std::string newest; // what would have been taken
    bool found = false;
    bool restored = false; // since the older
    std::string older;
    for (const SavedCopy& copy : copies) {
        if (copy.set == set)
            older = copy.dbiid;
        restored = restored || (copy.set > set && copy.restored);
        if (copy.set <= set || !damaged.contains(copy.object))
            continue;
        newest = copy.dbiid;
        found = true;
    }
    if (!found || (!newest.empty() && newest == older && !restored))
        return {};
    return fmt::format("the older copy in the set {0} {1}: `qrtln restore --set {0}` gives it by "
                       "name",
                       set,
                       newest.empty() || older.empty()
                           ? "cannot be rolled forward to the same end"
                           : "is another instance, which no log leads on from");
}

std::int64_t same_instance_until(const std::vector<SavedCopy>& copies, const std::string& set) {
    auto chosen = find_copy(copies, set);
    return chosen == copies.end() ? 0 : last_of_run(copies, chosen)->copied;
}

std::string reason_for_doubt(const std::vector<SavedCopy>& copies, const std::string& set,
                             std::int64_t moment, const LiveDatabase* live, bool restored) {
    constexpr const char* consequence = ": if that was before this moment, what the database held "
                                        "at it is in another instance";
    auto chosen = find_copy(copies, set);
    if (chosen == copies.end())
        return {};
    auto last = last_of_run(copies, chosen);
    auto next = last + 1;
    if (moment < last->copied)
        return {};
    bool other =
        live != nullptr && live->state != State::unopenable && !is_instance(*live, *chosen);
    if (chosen->dbiid.empty() && (next != copies.end() || other))
        return fmt::format("the set {} does not tell which instance it holds: it may have become "
                           "another (a compaction, a restore or a repair) before this moment",
                           set);
    if (next != copies.end())
        return fmt::format("it became another instance (a compaction, a restore or a repair) "
                           "between the sets {} and {}{}",
                           last->set, next->set, consequence);
    if (other)
        return fmt::format("the live database is another instance (a compaction, a restore or a "
                           "repair) than its newest saved copy, in the set {}{}",
                           last->set, consequence);
    if (restored)
        return fmt::format("a restore or recovery put it in place, or began to, since the set {}{}",
                           last->set, consequence);
    return {};
}

} // namespace qrtln
