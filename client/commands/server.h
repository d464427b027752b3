// Which server a command works for, whose sets it takes, and what its operations share: built once
// a command, from its options.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/commands/options.h"
#include "client/domino/notes_ini.h"
#include "client/module/session.h"
#include "client/store/store.h"

#include <memory>

namespace qrtln {

class CommandServer {
  public:
    // Reads the server's notes.ini as load_notes_ini does, and names the server by --server, or by
    // the host. Throws ClientError, also where this user must not run the server's library. The
    // options outlive it.
    explicit CommandServer(const ServerOptions& options,
                           bool data_directory_may_be_missing = false);

    // Has the store use the run-time data of this server, and settles whose sets count: those of
    // --from-server, or its own, with the data directory that --data-directory says they have.
    // `elsewhere`: what is restored goes to another folder, where any data directory will do.
    // `origin` are the options that say so, where they are not those of this call. Throws
    // ClientError. REQUIRES: `store` is set.
    void use_sets(bool elsewhere = false) { use_sets(m_options, elsewhere); }
    void use_sets(const ServerOptions& origin, bool elsewhere);

    // What the operations of the command share; it refers to `ini` and `store`. Opens the file of
    // --trace, for as long as this lives. Throws ClientError(failed). REQUIRES: `store` is set.
    OperationContext begin_operations();

    NotesIni ini;
    std::unique_ptr<Store> store; // opened by the command, which knows what for

  private:
    const ServerOptions& m_options;
    FileDescriptor m_trace;
};

} // namespace qrtln
