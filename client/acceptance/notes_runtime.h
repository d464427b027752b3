// The runtime of the server's library in a probe, and what every group asks of it.
#pragma once

#include "client/acceptance/probe_request.h"
#include "client/acceptance/teller.h"
#include "client/domino/notes_ini.h"
#include "notes_api/notes_api.h"

#include <string>
#include <vector>

namespace qrtln::acceptance {

// The size of every buffer that the library writes a path to without a length, and more.
inline constexpr std::size_t path_buffer_size = 4096;

// Loads the library and finds every function in it. Stops the group when it cannot.
// With `tell` it says what was found.
void load_library(Teller& teller, const NotesIni& ini, bool tell);

// The runtime while it is up.
class Runtime {
  public:
    // Loads and starts it as the module's process does, in the data directory. Stops the group when
    // that fails.
    Runtime(Teller& teller, const NotesIni& ini, bool tell = false);
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

  private:
    Teller& m_teller;
};

// "3758 (archiving is in progress)", with the server's own text; flags are told apart.
// REQUIRES: the library is loaded.
std::string status_text(STATUS status);

// A path in the server's character set, NUL-terminated, as the module passes it; empty when the
// server did not translate it.
std::vector<char> lmbcs_path(Teller& teller, const NamedDatabase& database);
std::vector<char> lmbcs_path(Teller& teller, const std::string& path);

// An open database. Stops the group when it cannot be opened.
class OpenDatabase {
  public:
    OpenDatabase(Teller& teller, const NamedDatabase& database);
    ~OpenDatabase();
    OpenDatabase(const OpenDatabase&) = delete;
    OpenDatabase& operator=(const OpenDatabase&) = delete;
    DBHANDLE handle() const { return m_handle; }
    // Stops the group when it fails.
    void close();

  private:
    Teller& m_teller;
    const std::string m_shown;
    DBHANDLE m_handle = 0;
};

} // namespace qrtln::acceptance
