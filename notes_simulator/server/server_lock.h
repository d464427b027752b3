// The lock that the processes of a server share.
#pragma once

#include "notes_simulator/server/server.h"

namespace notes_sim {

/// The exclusive lock on a server, held by whoever changes a database, the log or the state.
/// Waiters take turns: a second lock file serves as the gate, so that a process which takes the
/// lock again at once cannot starve another.
class ServerLock {
  public:
    explicit ServerLock(const Server& server);
    ~ServerLock();
    ServerLock(const ServerLock&) = delete;
    ServerLock& operator=(const ServerLock&) = delete;

  private:
    int m_fd = -1;
};

} // namespace notes_sim
