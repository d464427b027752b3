// What the client needs to know from a server's notes.ini.
#pragma once

#include "client/sets/server_scope.h"

#include <map>
#include <string>

namespace qrtln {

struct NotesIni {
    std::string file;              // absolute
    std::string data_directory;    // "Directory", without a trailing "/"
    std::string program_directory; // "NotesProgram", without a trailing "/"; may be empty
    std::string own_name;          // "ServerName", the server's own; may be empty
    std::string id_file;           // "ServerKeyFileName", else "KeyFilename"; may be empty
    std::string attachment_folder; // "DAOSBasePath", of attachment objects: absolute
    bool archives_logs = false;    // the server has transaction logs, of the style that is archived
    std::string server_name;       // in a store; by default the host's name
    ServerScope sets;              // of a store: by default those of this server
    bool logging = false;          // "TRANSLOG_Status=1": the server has transaction logging
    bool linear_logging = false;   // and "TRANSLOG_Style=2"
};

// The variables of a notes.ini: names in lower case, the last of equal names counts, as it does
// for the server. Lines without "=" and those that begin with "[" are skipped.
std::map<std::string, std::string> parse_notes_ini(const std::string& content);

// Reads the file and checks that it belongs to a server on this machine; its data directory may be
// missing only where it is to be brought back. Throws ClientError(failed) that says what is wrong.
NotesIni load_notes_ini(const std::string& file, bool data_directory_may_be_missing = false);

// Where $Notes_ExecDirectory should point; empty when the environment says so already, or
// NotesProgram has no library.
std::string exec_directory(const NotesIni& ini);

// The folder of the transaction logs, or an empty text when notes.ini does not tell.
std::string log_directory(const NotesIni& ini);

} // namespace qrtln
