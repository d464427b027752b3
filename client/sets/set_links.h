// What the sets of a store tell of each other: a set that another one names and that is not there
// was lost, unless it was forgotten on purpose.
#pragma once

#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <map>
#include <string>
#include <vector>

namespace qrtln {

struct MissingSet {
    std::string set;
    std::string why; // who tells of it
};

class SetLinks {
  public:
    // Notes which sets a set names.
    void add(const Manifest& manifest);
    // The named ones that are not in the store, and, with `notes`, those of which only a note is
    // there: by name. Throws ClientError when the store cannot be listed.
    std::vector<MissingSet> missing(Store& store, bool notes = true) const;
    // The first set that builds on this one; empty: none does.
    std::string built_on(const std::string& set) const;

  private:
    std::map<std::string, std::string> m_named;    // by the name: who tells of it, as a text
    std::map<std::string, std::string> m_built_on; // by the name: the set that builds on it
};

// "the set A is missing: the set B builds on it".
std::string describe(const MissingSet& missing);

// What to do about missing sets.
extern const char* const missing_set_hint;

} // namespace qrtln
