// rclone, which reaches the places elsewhere that a store can lie on: one process for a run,
// started, watched and ended by this one, which tells it what to do by its remote control.
#pragma once

#include "client/base/file_descriptor.h"

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln {

// So often it is looked whether something has ended.
inline constexpr std::chrono::milliseconds looks_again{20};

// A word that nobody guesses.
std::string random_word();

struct RcloneOptions {
    std::string program = "rclone"; // searched in PATH
    std::string bandwidth;          // as of its --bwlimit; empty: all there is
};

class RcloneProcess {
  public:
    // Starts it and waits until it can be spoken to. Throws ClientError(remote_failed).
    explicit RcloneProcess(const RcloneOptions& options);
    ~RcloneProcess();
    RcloneProcess(const RcloneProcess&) = delete;
    RcloneProcess& operator=(const RcloneProcess&) = delete;

    // "http://127.0.0.1:PORT/", and "USER:PASSWORD" made by chance: others of this machine reach
    // the port as well.
    const std::string& url() const { return m_url; }
    const std::string& secret() const { return m_secret; }

    // Throws ClientError(remote_failed), with what it said last, where it has ended.
    void require_running();
    // The last line that it said; empty: none.
    std::string last_words() const;
    // Ends it at once: it does not answer.
    void kill();

  private:
    void start(const RcloneOptions& options);
    void wait_for_url();
    std::string said() const;

    pid_t m_process = -1;
    FileDescriptor m_messages; // its standard error, in memory
    std::string m_url;
    std::string m_secret;
};

} // namespace qrtln
