// What a selection looks for in the sets, and how far it came: what is not found is told from this.
#pragma once

#include "client/domino/point_in_time.h"
#include "client/restore/selection.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qrtln {

// A name of the request.
struct SelectedName {
    std::string given;
    std::string path;
    bool closed = false;        // no older set has a say
    bool others_closed = false; // likewise of what the client saved beside the module's files
    bool seen = false;          // in a set that counts, perhaps copied too late
    bool found = false;
    bool exact = false; // an item of this very path was found
};

// A path of which no copy so far will do.
struct LookedFor {
    bool named = false;
    std::int64_t late = 0; // when its oldest copy was complete, after the moment; 0: damaged
};

struct SelectionSearch {
    Store& store;
    const ServerScope& scope;
    const SelectionRequest& request;
    Moment moment = {};
    std::vector<SelectedName> names = {};
    std::map<std::string, LookedFor> looked_for = {}; // by path
    // A complete set of the whole system tells what there was at the moment, or one before it.
    bool base_found = false;

    // Whether the set was made in time.
    bool counts(const Manifest& manifest) const;
    // When the copy was complete, if that was after the moment, else 0. Sets of earlier versions do
    // not tell: before their end.
    std::int64_t late_copy(const Manifest& manifest, const ManifestItem& item) const;
};

// Throws ClientError(no_such) when a name is in no set, or no set covers the whole system, with the
// first set or moment that would do.
void require_found(const SelectionSearch& search);

// Of databases and files that are left out because each copy came too late.
std::vector<std::string> warnings_about_late(const SelectionSearch& search);

} // namespace qrtln
