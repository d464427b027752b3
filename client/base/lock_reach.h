// Whether a lock on a file system is seen by all that use it.
#pragma once

#include <string>

namespace qrtln {

// Whether a lock in this open folder keeps every host out that can reach it: on a file system of
// one host it does, on one that several have mounted only where locks go to its server. Where that
// cannot be told: no.
bool locks_reach_every_host(int folder);

// The same for a file system of this type, mounted with these options (see proc(5), mountinfo).
bool locks_reach_every_host(const std::string& type, const std::string& options);

} // namespace qrtln
