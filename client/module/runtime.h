// The folder of the module's run-time data, the index of database instances. A module that runs as
// the server's user has no way into the store: it works on a copy, which the store takes back.
#pragma once

#include "client/module/temporary_directory.h"

#include <optional>
#include <string>

namespace qrtln {

class ModuleRuntime {
  public:
    // `folder` is the one in the store. Where the module's process becomes another user there is
    // one of that user's below `tmp_dir` instead. Throws as TemporaryDirectory does.
    ModuleRuntime(const std::string& folder, const std::string& tmp_dir,
                  const std::string& data_directory);

    // An absolute path.
    const std::string& path() const { return m_copy ? m_copy->path() : m_folder; }
    // To be called before a backup: puts a copy of the index where the module expects it. Throws
    // ClientError when the index cannot be read or copied; nothing is done without one.
    void lend_index() const;

  private:
    std::string m_folder;
    std::string m_data_directory;
    std::optional<TemporaryDirectory> m_copy;
};

} // namespace qrtln
