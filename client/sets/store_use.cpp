#include "client/sets/store_use.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/set_links.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

[[noreturn]] void fail(const std::string& set, const std::string& problem) {
    throw ClientError(
        ExitCode::damage_found,
        fmt::format("what the set {} needs is not known: {}", for_terminal(set), problem),
        "bring the files back from a copy of the store (`qrtln verify` tells which), or "
        "name the set to forget it, too");
}

} // namespace

StoreUse store_use(Store& store, const std::set<std::string>& without) {
    StoreUse use;
    SetLinks links;
    std::set<MapPlace> met;
    for (const std::string& set : store.set_names()) {
        throw_if_interrupted();
        if (without.contains(set))
            continue;
        CatalogueEntry entry = load_set(store, set);
        if (!entry.manifest)
            fail(set, "its manifest " + for_terminal(entry.problem));
        links.add(*entry.manifest);
        for (const ManifestItem& item : entry.manifest->items) {
            if (!is_in_blocks(item)) {
                use.objects.insert(item.object);
                continue;
            }
            use.maps.insert(item.map.file);
            if (!met.insert(item.map).second)
                continue;
            try {
                use.blocks.add(store.packs().read_map(item.map, item.object));
            } catch (const PackDamage& damage) {
                fail(set, fmt::format("{} {}", for_terminal(item.path), damage.problem));
            }
        }
    }
    for (const MissingSet& missing : links.missing(store)) // its contents are there, for its return
        if (!without.contains(missing.set))
            throw ClientError(ExitCode::damage_found, describe(missing), missing_set_hint);
    return use;
}

} // namespace qrtln
