// The index file: the input is the file's bytes, then a line "---", then one line "path=value" for
// each entry that a run sets (byte 0x1F: a line end in the path). Loaded, looked up, changed and
// put in place; the working copy is compared with the whole index written anew, and what was set is
// found again by the next run.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <unistd.h>

#include "common/bounded_text.h"
#include "common/iniparser.h"
#include "fuzz/support/confinement.h"
#include "fuzz/support/module_checks.h"
#include "fuzz/support/target.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"

extern "C" void resolve_path(char* path) {
    constexpr std::string_view kPrefix = "gv_rw_times:";
    const std::string text = path;
    if (text.starts_with(kPrefix)) {
        copyText(path, kPathSize, (fuzz::folder() + "/" + text.substr(kPrefix.size())).c_str());
    }
}

namespace {

using fuzz::require;

constexpr std::string_view kSeparator = "\n---\n";

std::string indexPath() {
    return fuzz::folder() + "/qrtln_DBIID.ini";
}

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

bool hasLineEnd(const std::string& path) {
    return path.find_first_of("\r\n") != std::string::npos;
}

// What comes back of a path without a line end: it ends at its first "=", and the blanks before
// that go.
std::string readBack(const std::string& path) {
    std::string text = path.substr(0, path.find('='));
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
        text.pop_back();
    }
    return text;
}

void checkCopy() {
    require(fuzz::readFile(workingCopyPath()) == wholeDump(),
            "the working copy reads as if written whole");
}

void checkLookUps(const std::map<std::string, std::string>& entries, const char* what) {
    for (const auto& [path, value] : entries) {
        const char* stored = storedDbIId(path.c_str());
        require(stored != nullptr && value == stored, what);
    }
}

} // namespace

void fuzz::runInput(std::string_view input) {
    clearRecord();
    const std::size_t separator = input.find(kSeparator);
    const std::string_view content = input.substr(0, separator);
    writeFile(indexPath(), content);

    openDBIIDIndex();
    std::map<std::string, std::string> entries;
    std::set<std::string> ambiguous;
    bool bStored = false;
    if (separator != std::string_view::npos) {
        std::vector<std::string_view> lines =
            split(input.substr(separator + kSeparator.size()), '\n');
        lines.resize(std::min<std::size_t>(lines.size(), 8)); // each is compared with the whole
        for (const std::string_view line : lines) {
            std::string entry = "/" + expanded(line);
            std::replace(entry.begin(), entry.end(), '\x1F', '\n');
            const std::string path = entry.substr(0, entry.find('='));
            // As the module forms it: a full path, cut at 256 bytes.
            const std::string key = path.substr(0, 256);
            char szValue[35];
            std::snprintf(szValue, sizeof szValue, "%08lX-%08lX %08lX%08lX",
                          static_cast<unsigned long>(entry.size()),
                          static_cast<unsigned long>(path.size()), 0xC1258A4FUL, 1UL);
            storedDbIId(key.c_str());
            storeDbIId(key.c_str(), szValue);
            bStored = bStored || !hasLineEnd(key);
            if (bStored) {
                checkCopy();
            }
            if (!hasLineEnd(key)) {
                // Two paths that come back as one: which of them the next run finds is left open.
                if (readBack(key) != key) {
                    ambiguous.insert(readBack(key));
                } else {
                    entries[key] = szValue;
                }
            }
        }
    }
    checkLookUps(entries, "an entry is there once it is set");
    const bool bHasCopy = access(workingCopyPath(), F_OK) == 0;
    const int result = QRTLN_EndDBIIDIndexProcessing(TRUE);
    require((result == DB_NUM_I_OK) == bHasCopy, "a working copy replaces the index");
    require(bStored || readFile(indexPath()) == content, "without a change the index stays");

    openDBIIDIndex();
    for (const std::string& key : ambiguous) {
        entries.erase(key);
    }
    checkLookUps(entries, "an entry is there in the next run");
    require(QRTLN_EndDBIIDIndexProcessing(FALSE) == DB_NUM_I_OK, "a failed run ends");
    require(access(workingCopyPath(), F_OK) != 0, "no working copy is left");
    releaseDBIIDIndex();
    require(!refusedChange() && closeLeftStreams() == 0, "nothing is left open");
}
