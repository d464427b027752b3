// Who writes to a store that lies elsewhere, where nothing can be locked: a file there tells it.
#pragma once

#include "client/base/process_note.h"
#include "client/remote/remote_files.h"

#include <chrono>
#include <optional>
#include <string>

namespace qrtln {

inline constexpr const char* claim_file = "claim.json";

class Claim {
  public:
    // Both outlive it; `store` in words, for messages.
    Claim(RemoteFiles& files, const std::string& store) : m_files(files), m_store(store) {}
    // Gives it up.
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    // Takes it, or says who has it: ClientError(locked). One of a process of this machine that has
    // ended is taken over.
    void take();
    // Who has it, as far as it tells; nothing where nobody has.
    std::optional<ProcessNote> holder() const;
    // Says now and then that it is still in use. Throws ClientError(locked) where somebody else
    // took it.
    void renew();

  private:
    void write();

    RemoteFiles& m_files;
    const std::string& m_store;
    std::string m_name; // made by chance; empty: it is not taken
    std::chrono::steady_clock::time_point m_renewed;
};

} // namespace qrtln
