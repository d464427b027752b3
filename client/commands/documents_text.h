// What became of documents, for people and for scripts.
#pragma once

#include "client/documents/operation.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace qrtln {

// What was asked for, as it is told.
struct DocumentsTold {
    bool changed = false; // else deleted
    bool dry_run = false;
    std::string store;      // its full path
    std::string database;   // likewise
    std::string set;        // that they come from
    std::int64_t since = 0; // seconds since 1970
    std::string bring_back; // the command for what is deleted now; empty: nothing is
};

// Whether a document came back, or in a dry run would.
bool came_back(const DocumentResult& document);

// That of what ended the operation, else items_failed or complete.
int exit_code_of(const DocumentsResult& result);

// Each document with what became of it, as lines and as a JSON document.
std::string documents_text(const DocumentsResult& result, const DocumentsTold& told);
nlohmann::json documents_json(const DocumentsResult& result, const DocumentsTold& told);

} // namespace qrtln
