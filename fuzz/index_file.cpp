// The index file: the input is the file's bytes, then a line "---", then one line "path=value" for
// each entry that a run sets (byte 0x1F: a line end in the path). Loaded, looked up, changed and
// put in place; the working copy is compared with the whole index written anew, and what was set is
// found again by the next run.
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <unistd.h>

#include "common/iniparser.h"
#include "fuzz/support.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"

namespace {

using fuzz::require;

constexpr char kIndex[] = "run/qrtln_DBIID.ini";
constexpr std::string_view kSeparator = "\n---\n";

// The dictionary as it is written when it is written whole.
std::string wholeDump() {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    iniparser_dump_ini(gdcDBIID, stream);
    std::fclose(stream);
    const std::string result(text, size);
    std::free(text);
    return result;
}

// What comes back of a path without a line end: it ends at its first "=", and the blanks at both
// ends go.
std::string readBack(const std::string& path) {
    std::string text = path.substr(0, path.find('='));
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
        text.pop_back();
    }
    return text.substr(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
}

void checkLookUps(const std::map<std::string, std::string>& entries, const char* what) {
    for (const auto& [path, value] : entries) {
        const char* stored = storedDbIId(path.c_str());
        require(stored != nullptr && value == stored, what);
    }
}

} // namespace

void fuzz::runInput(std::string_view input) {
    static const std::string workingCopy = std::string(kIndex) + "." + std::to_string(getpid());
    clearRecord();
    const std::size_t separator = input.find(kSeparator);
    const std::string content(input.substr(0, separator));
    files().write(kIndex, content);

    openDBIIDIndex();
    std::map<std::string, std::string> entries;
    std::set<std::string> ambiguous;
    bool isStored = false;
    std::vector<std::string_view> lines;
    if (separator != std::string_view::npos) {
        lines = split(input.substr(separator + kSeparator.size()), '\n');
    }
    lines.resize(std::min<std::size_t>(lines.size(), 8)); // each is compared with the whole
    for (const std::string_view line : lines) {
        std::string entry = "/" + expanded(line);
        std::replace(entry.begin(), entry.end(), '\x1F', '\n');
        // As the module forms it: a full path, cut at 256 bytes.
        const std::string key = entry.substr(0, std::min<std::size_t>(entry.find('='), 256));
        char szValue[35];
        std::snprintf(szValue, sizeof szValue, "%08zX-%08zX C1258A4F00000001", entry.size(),
                      key.size());
        storedDbIId(key.c_str());
        storeDbIId(key.c_str(), szValue);
        const bool isHeld = key.find_first_of("\r\n") == std::string::npos;
        isStored = isStored || isHeld;
        require(!isStored || files().read(workingCopy) == wholeDump(),
                "the working copy reads as if written whole");
        // Two paths that come back as one: which of them the next run finds is left open.
        if (isHeld && readBack(key) != key) {
            ambiguous.insert(readBack(key));
        } else if (isHeld) {
            entries[key] = szValue;
        }
    }
    checkLookUps(entries, "an entry is there once it is set");
    // The file may have such paths, too, as names of sections.
    for (int slot = 0; gdcDBIID != nullptr && slot < gdcDBIID->n; ++slot) {
        const std::string key = gdcDBIID->key[slot];
        const std::string path = key.substr(std::min(key.find(':'), key.size() - 1) + 1);
        if (readBack(path) != path) {
            ambiguous.insert(readBack(path));
        }
    }
    const bool hasCopy = files().exists(workingCopy);
    require((QRTLN_EndDBIIDIndexProcessing(TRUE) == DB_NUM_I_OK) == hasCopy,
            "a working copy replaces the index");
    require(isStored || files().read(kIndex) == content, "without a change the index stays");

    openDBIIDIndex();
    for (const std::string& key : ambiguous) {
        entries.erase(key);
    }
    checkLookUps(entries, "an entry is there in the next run");
    require(QRTLN_EndDBIIDIndexProcessing(FALSE) == DB_NUM_I_OK, "a failed run ends");
    require(!files().exists(workingCopy), "no working copy is left");
    releaseDBIIDIndex();
    require(!refusedChange() && closeLeftStreams() == 0, "nothing is left open");
}
