// Calls of rclone's remote control: JSON over HTTP, and files by ranges.
#pragma once

#include "client/base/file_io.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qrtln {

// A call that failed. The text is rclone's, or the connection's.
struct RcloneFailure : std::runtime_error {
    RcloneFailure(int status_of_it, const std::string& text)
        : std::runtime_error(text), status(status_of_it) {}
    int status; // as of HTTP; 0: rclone was not reached
    // It did not answer in time, nor will it the next time.
    static constexpr int no_answer = -1;
};

// On any thread.
class RcloneCalls {
  public:
    // `patience`: for how long rclone may keep silent in a call.
    RcloneCalls(std::string url, std::string secret, std::chrono::seconds patience);
    ~RcloneCalls();
    RcloneCalls(const RcloneCalls&) = delete;
    RcloneCalls& operator=(const RcloneCalls&) = delete;

    // "operations/list" and the like. Throws RcloneFailure.
    nlohmann::json call(const std::string& method, const nlohmann::json& arguments);
    // The same beside other calls: the number of the job.
    std::int64_t begin(const std::string& method, nlohmann::json arguments);
    struct Job {
        bool ended = false;
        std::string error = {}; // of one that has ended; empty: it succeeded
    };
    Job look_at(std::int64_t job);

    // Fills the buffer with bytes of a file from an offset on; `folder` is "REMOTE:PATH". Returns
    // how many there were. Throws RcloneFailure, of status 404 for a file that is not there.
    std::size_t read(const std::string& folder, const std::string& name, std::uint64_t offset,
                     std::span<std::byte> buffer);

  private:
    struct Connection;
    class Lease;
    std::unique_ptr<Connection> take();
    void give_back(std::unique_ptr<Connection> connection);

    const std::string m_url;
    const std::string m_secret;
    const std::chrono::seconds m_patience;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Connection>> m_idle;
};

} // namespace qrtln
