// The files of a store that lies elsewhere, by names below its folder such as "packs/AB.pack". What
// fails for a moment is tried again; what took too long ends the command.
#pragma once

#include "client/remote/rclone_calls.h"
#include "client/remote/rclone_process.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

inline constexpr std::string_view remote_prefix = "rclone:";

struct RemoteOptions {
    std::string place; // "REMOTE:PATH", as rclone takes it
    std::string bandwidth;
    std::chrono::seconds longest_outage{300}; // of what fails again and again
};

struct RemoteFile {
    std::string name; // below the folder of the store
    std::uint64_t size = 0;
    std::map<std::string, std::string> hashes; // by kind: "md5", "sha1"; what the place has
};

// Everything throws ClientError: remote_failed, no_permission, interrupted.
class RemoteFiles {
  public:
    explicit RemoteFiles(RemoteOptions options);

    // All files below a folder, "" for all, sorted by name; none where there is no such folder.
    // `hashes`: with those that the place tells.
    enum class Hashes { left_out, told };
    std::vector<RemoteFile> list(const std::string& folder, Hashes hashes = Hashes::left_out);
    // A file; nothing where it is not there.
    std::optional<RemoteFile> look_at(const std::string& name, Hashes hashes = Hashes::left_out);
    // The content of a small file; nothing where it is not there, or is larger.
    std::optional<std::string> read_small(const std::string& name, std::size_t limit);
    // Fills the buffer from an offset on; on any thread. False where the file ends before, or is
    // not there.
    bool read(const std::string& name, std::uint64_t offset, std::span<std::byte> buffer);

    // Begins to put a local file there; a few at a time, and waits for one where more are under
    // way. `done` is called when it is there, before that is confirmed.
    void put(const std::string& local, const std::string& name, std::function<void()> done = {});
    // Puts a small file there, and waits until it is.
    void put_small(const std::string& bytes, const std::string& name);
    // Begins to remove a file, likewise; one that is gone is no failure.
    void remove(const std::string& name);
    // Waits for all of that, then for a listing that has each file with its size, and hash where
    // the place tells one that can be computed.
    void finish();
    // Removes a file that was put there, or is about to be, at once; tried a single time.
    void take_back(const std::string& name);

  private:
    struct Work {
        std::string doing; // for messages
        std::string method;
        nlohmann::json arguments;
        std::string name;
        std::function<void()> done;
        std::int64_t job = 0;
        std::chrono::steady_clock::time_point first_failure = {}; // unset: none
        std::chrono::steady_clock::time_point next_try = {};      // of one that failed
        bool has_failed = false;
        bool runs = false;
    };
    struct Expected {
        std::string name;
        std::uint64_t size;
        std::shared_future<std::string> md5;
    };
    // Calls it again and again, as long as that may help.
    template <typename Call>
    auto insist(const std::string& doing, Call call);
    void note_failure(const std::string& doing, const std::string& text,
                      std::chrono::steady_clock::time_point first, std::chrono::seconds pause);
    void end_where_silent(const RcloneFailure& failure);
    [[noreturn]] void give_up(const std::string& doing, const std::string& text);
    void begin(Work work);
    void look_at_work();
    bool has_failed(Work& work, const std::string& problem);
    void confirm();
    std::string unconfirmed();
    bool tells_hashes_at_once();

    RemoteOptions m_options;
    RcloneProcess m_process;
    RcloneCalls m_calls;
    std::list<Work> m_work; // under way
    std::vector<Expected> m_expected;
    std::optional<nlohmann::json> m_abilities; // of the place
    std::mutex m_telling;
};

} // namespace qrtln
