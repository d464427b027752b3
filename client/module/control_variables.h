// How the module's control variables are written: each as one text "NAME=VALUE", as the calls of
// ModuleSession take it. No other file knows their names and forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace qrtln {

// NOTESINI, the server's, for every operation.
inline std::string notes_ini_variable(const std::string& file) {
    return "NOTESINI=" + file;
}
// TMP_DIR, where copies are made.
inline std::string tmp_dir_variable(const std::string& folder) {
    return "TMP_DIR=" + folder;
}
// STATUS of the close: whether the operation counts.
inline std::string status_variable(bool good) {
    return good ? "STATUS=0" : "STATUS=1";
}

// DATABASE for the whole server.
inline constexpr const char* whole_server_variable = "DATABASE=NOTES";
// DATABASE for what one of the values below names. An operation may have several.
inline std::string database_variable(const std::string& value) {
    return "DATABASE=" + value;
}
// The value for this database or folder.
std::string database_value(const std::string& path);
// The value for what lies in a folder and has a dot in its name. The folder's own name is taken
// literally.
std::string folder_content_value(const std::string& folder);
// Whether the name of a folder is more than itself where no pattern follows it.
bool is_pattern(const std::string& path);
// The longest path, escaped, that a value takes, in bytes.
std::size_t maximal_database_path();

// SNC_TIME: the start of a base backup, as local time. The module reads it back without knowing
// whether daylight saving applied; where the clock shows `time` twice an earlier time is written,
// so that it is never read as a later one. Throws ClientError(failed) for a time that has no date
// of four-digit year.
std::string base_time_variable(std::time_t time);

// ACTIVATE: restored databases are taken offline, replaced and brought online.
inline constexpr const char* activate_variable = "ACTIVATE=YES";
// RECOVERY: databases that were restored before are rolled forward where they lie.
inline constexpr const char* recovery_variable = "RECOVERY=YES";
// NEWDBIID: a recovered database becomes an instance of its own.
inline constexpr const char* new_dbiid_variable = "NEWDBIID=YES";
// The value of ROLLFORWARD, up to a moment or with all logs: "YES", or the time as YYYYMMDDhhmmss
// in local time. Throws ClientError(usage) for a time that the clock shows twice: the module would
// refuse it.
std::string rollforward_value(const std::optional<std::int64_t>& to);
inline std::string rollforward_variable(const std::optional<std::int64_t>& to) {
    return "ROLLFORWARD=" + rollforward_value(to);
}

// INFO for a relocation to this folder, by a path that the module reads as it is meant. "Plain"
// leaves the folders away that files lay in. REQUIRES: misread_in_info(to) is empty.
std::string relocation_variable(const std::string& to, bool plain);
// INFO for a restore of the documents that were deleted since then, or of listed ones that were
// changed. `since` is "YYYYMMDDhhmm" in local time, as PointInTime has it.
inline std::string deleted_documents_variable(const std::string& since) {
    return "INFO=deld=" + since;
}
inline std::string changed_documents_variable(const std::string& since) {
    return "INFO=chgd=" + since;
}
// What in a path means something to the module where it stands in INFO, as a text for a person;
// empty when nothing does.
std::string misread_in_info(const std::string& path);

} // namespace qrtln
