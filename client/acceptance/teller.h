// How the process of a group of calls tells what it does and finds.
#pragma once

#include "client/acceptance/report.h"

#include <nlohmann/json.hpp>

#include <string>

namespace qrtln::acceptance {

// The name of a finding that says why this program, and not the library, could not go on.
inline constexpr const char* own_failure = "failed";
// That of one that says what stays on the server.
inline constexpr const char* left_finding = "left";

// Ends a group: what it has begun is undone on the way out.
struct Surprise {
    Finding finding;
};
// Likewise: the client is gone, or was interrupted.
struct ClientGone {};

// The probe's side of the connection.
class Teller {
  public:
    Teller(int descriptor, Step step) : m_descriptor(descriptor), m_step(step) {}

    // Tells what is called next. Throws ClientGone.
    void calling(const std::string& call);
    // Likewise, while something is undone: never throws.
    void undoing(const std::string& call) noexcept;
    // What of one kind stays on the server if the process ends now; empty: nothing.
    void leaves(const std::string& kind, const std::string& text) noexcept;
    void ok(const std::string& name, const std::string& text, const Statuses& statuses = {});
    void told(const std::string& name, const std::string& text, const Statuses& statuses = {},
              bool incomplete = false);
    [[noreturn]] void stop(const std::string& name, const std::string& text,
                           const Statuses& statuses = {});
    void send(const Finding& finding);
    void done(); // the group is at its end

  private:
    bool write(const nlohmann::json& message) noexcept;
    int m_descriptor;
    Step m_step;
};

} // namespace qrtln::acceptance
