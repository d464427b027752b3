#include "notes_simulator/server/notes_ini.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

NotesIni NotesIni::load(const fs::path& file) {
    std::error_code error;
    if (!fs::exists(file, error)) {
        throw StatusError(kInvalidDirectory, "there is no " + file.string());
    }
    std::ifstream stream(file);
    if (readingDenied(file) || !stream || fs::is_directory(file, error)) {
        throw StatusError(kAccessDenied, file.string());
    }
    NotesIni ini;
    for (std::string line; std::getline(stream, line);) {
        const auto equals = line.find('=');
        if (equals != std::string::npos) {
            ini.m_variables[lower(trimmed(line.substr(0, equals)))] =
                trimmed(line.substr(equals + 1));
        }
    }
    return ini;
}

std::optional<std::string> NotesIni::get(const std::string& name) const {
    const auto found = m_variables.find(lower(name));
    return found == m_variables.end() ? std::nullopt : std::optional(found->second);
}

std::uint64_t NotesIni::number(const std::string& name, std::uint64_t fallback) const {
    const std::string text = get(name).value_or("");
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? value : fallback;
}

} // namespace notes_sim
