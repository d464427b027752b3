// A backup of one database, and what a database holds, step by step as the module does it.
#pragma once

#include "client/acceptance/notes_runtime.h"

#include <set>

namespace qrtln::acceptance {

// How a backup is ended: NSFBackupEnd's options.
inline constexpr DWORD complete = 0;
inline constexpr DWORD give_up = 1;

// The ids of the documents, deleted ones not among them. Stops the group when they are not told.
std::set<NOTEID> documents_of(Teller& teller, const OpenDatabase& database,
                              const std::string& shown);

// A backup context. One that is neither ended nor left to another is given up.
class Backup {
  public:
    // Starts it. Stops the group when the server does not: also where a backup of the database
    // runs already, which is then left alone.
    Backup(Teller& teller, const OpenDatabase& database, const NamedDatabase& named);
    ~Backup();
    Backup(const Backup&) = delete;
    Backup& operator=(const Backup&) = delete;

    // What the server says that is to be copied.
    std::uint64_t size() const { return m_size; }
    // Copies these bytes of the database's file to the copy, which must be in its order.
    void copy(const std::string& target, std::uint64_t begin, std::uint64_t end);
    // Stops the recording and applies what was recorded to the copy. Returns its bytes.
    std::uint64_t apply_changes(const std::string& target);
    // `complete` or `give_up`. Stops the group when it fails.
    void end(DWORD option);

  private:
    void check(const char* call, STATUS status);
    void fetch_and_apply(DHANDLE apply);
    Teller& m_teller;
    const DBHANDLE m_database;
    const NamedDatabase& m_named;
    DHANDLE m_context = 0;
    bool m_open = false;
    std::uint64_t m_size = 0;
};

} // namespace qrtln::acceptance
