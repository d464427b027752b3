#include "tests/torture/content.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <sqlite3.h>

std::string bytesOf(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string contentOf(const std::string& path) {
    // "immutable" takes no locks: closing the file must not drop those of the simulator.
    const std::string uri = "file:" + path + "?immutable=1&vfs=unix";
    sqlite3* handle = nullptr;
    const int opened =
        sqlite3_open_v2(uri.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> database(handle, &sqlite3_close);
    if (opened != SQLITE_OK) {
        return "unsound: cannot be opened";
    }
    std::string content;
    for (const char* query :
         {"SELECT integrity_check FROM pragma_integrity_check WHERE integrity_check <> 'ok'",
          "SELECT note_id||' '||hex(unid)||' '||class||' '||subject||' '||hex(body) FROM notes",
          "SELECT 'unread '||user||' '||note_id FROM unread"}) {
        char* error = nullptr;
        const auto append = [](void* text, int, char** values, char**) {
            *static_cast<std::string*>(text) += std::string(values[0]) + "\n";
            return 0;
        };
        if (sqlite3_exec(handle, query, append, &content, &error) != SQLITE_OK) {
            content = std::string("unsound: ") + error;
            sqlite3_free(error);
            return content;
        }
        if (query[7] == 'i' && !content.empty()) {
            return "unsound: " + content;
        }
    }
    return content;
}

bool sameContent(const std::string& copy, const std::string& database) {
    const std::string bytes = bytesOf(copy);
    if (!bytes.empty() && bytes == bytesOf(database)) {
        return true;
    }
    const std::string content = contentOf(copy);
    return !content.starts_with("unsound") && content == contentOf(database);
}
