// The variables of a notes.ini.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace notes_sim {

/// The variables of a notes.ini. Names compare without regard to case.
class NotesIni {
  public:
    /// Throws StatusError: kAccessDenied when the file may not be read, kInvalidDirectory when
    /// there is none.
    static NotesIni load(const std::filesystem::path& file);

    std::optional<std::string> get(const std::string& name) const;
    /// The number behind a variable; fallback when it is missing or not a number.
    std::uint64_t number(const std::string& name, std::uint64_t fallback) const;

  private:
    std::map<std::string, std::string> m_variables;
};

} // namespace notes_sim
