// Which sets of a store are read at the moment, so that none of them is forgotten meanwhile: each
// set is a byte of the file `readers`, which readers lock together and who forgets it alone.
// Nothing is written to it; a process that ends in whatever way lets go.
#pragma once

#include "client/base/file_descriptor.h"

#include <cstdint>
#include <string>

namespace qrtln {

inline constexpr const char* readers_file = "readers";

// The byte of a set. Two sets that come to the same one are at worst both kept.
std::int64_t reader_byte(const std::string& set);

class ReaderLocks {
  public:
    // Opens the file in the folder of a store; with `create`, for somebody who may write there, it
    // is made where it is missing. Where it cannot be opened nobody is kept from anything: such a
    // store is a copy, or of an earlier release.
    void open(int store, bool create);

    // Locks a set until this is destroyed, and returns whether that could be done: as a reader, or
    // as the only one.
    bool share(const std::string& set);
    bool take(const std::string& set);

  private:
    bool lock(const std::string& set, short type);

    FileDescriptor m_file;
};

} // namespace qrtln
