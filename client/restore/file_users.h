// Which processes have files open, as far as this user may see.
#pragma once

#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace qrtln {

// A look at all processes at one moment.
class FileUsers {
  public:
    FileUsers();
    // The processes, this one not counted, that have the file open, with their names: "1234
    // (server)". Empty when none is known.
    std::string describe(const struct stat& file) const;
    // Whether every process could be looked at: then an empty answer means that there is none.
    bool sees_all() const { return m_sees_all; }

  private:
    std::map<std::pair<dev_t, ino_t>, std::vector<pid_t>> m_users;
    bool m_sees_all = true;
};

} // namespace qrtln
