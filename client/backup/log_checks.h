// Whether the logs of a set are whole, and form one chain with those of the sets before it.
#pragma once

#include "client/backup/run.h"
#include "client/sets/log_chain.h"

#include <vector>

namespace qrtln {

class LogChecks {
  public:
    // `run` outlives it.
    explicit LogChecks(BackupRun& run) : m_run(run) {}

    // The full extents of one log have one size. The server removes what is stored of one: a short
    // one fails.
    void check_sizes();
    // Notes the gaps in the manifest: the logs up to this set must form one chain from the last
    // complete full set on. REQUIRES: check_sizes() was called, and the manifest says whether it is
    // complete.
    void check_chain();

  private:
    BackupRun& m_run;
    std::vector<ChainLink> m_chain; // before this set: from the base on, or of all without one
    bool m_has_base = false;
};

} // namespace qrtln
