// Argument paths and patterns: the first line is the data directory ("" takes the target's own),
// the others are arguments, paths and patterns. Each goes through every function of argument_paths
// and the path functions around it; where a plain model says the same, the two are compared.
#include <algorithm>
#include <cstring>
#include <fnmatch.h>
#include <strings.h>

#include "common/bounded_text.h"
#include "common/xutil.h"
#include "fuzz/support/confinement.h"
#include "fuzz/support/module_checks.h"
#include "fuzz/support/target.h"
#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_f/file_discovery.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

using fuzz::require;

bool endsInOne(const std::string& name, std::initializer_list<const char*> extensions) {
    return name.size() > 4 &&
           std::any_of(extensions.begin(), extensions.end(), [&](const char* extension) {
               return strcasecmp(name.substr(name.size() - 4).c_str(), extension) == 0;
           });
}

void checkNames(const std::string& text) {
    const char* name = text.c_str();
    require((isFileNotesDb(name) != 0) == endsInOne(text, {".nsf", ".ntf", ".ncf", ".box"}) &&
                (isFileNotesNSF(name) != 0) ==
                    endsInOne(text, {".nsf", ".ns2", ".ns3", ".ns4", ".ntf", ".box"}) &&
                (isFileNotesNTF(name) != 0) == endsInOne(text, {".ntf"}) &&
                (isFileNotesTXN(name) != 0) == endsInOne(text, {".txn"}),
            "the kinds of names");

    char szName[kPathSize];
    std::memset(szName, 'x', sizeof szName);
    getFileName(name, szName);
    const std::size_t slash = text.rfind('/');
    const std::string last = slash == std::string::npos ? text
                             : slash + 1 == text.size() ? "/"
                                                        : text.substr(slash + 1);
    require(last.substr(0, kPathSize - 1) == szName, "getFileName");

    char szTarget[kPathSize];
    copyText(szTarget, name);
    AdaptDriveLetter(szTarget, name);
    require(text.substr(0, kPathSize - 1) == szTarget, "a drive letter has its own case");
}

void checkPatterns(const std::vector<std::string>& lines) {
    FifoList patterns(CreateFIFOList());
    std::vector<const std::string*> queued;
    for (const std::string& line : lines) {
        if (pushPath(patterns.get(), line.c_str(), DB_BACKUP_FILE_TYPE_DB)) {
            queued.push_back(&line);
        }
    }
    fuzz::checkQueue(patterns.get());
    for (const std::string& path : lines) {
        const bool matches =
            queued.empty() ||
            std::any_of(queued.begin(), queued.end(), [&](const std::string* pattern) {
                return fnmatch(pattern->c_str(), path.c_str(), 0) == 0;
            });
        require((ifMatchPattern(path.c_str(), patterns.get()) != 0) == matches, "ifMatchPattern");
    }
    g_sQRTLN_Global.lhNotesFileList = patterns.get();
    for (const std::string& path : lines) {
        const int before = getFIFOItemNumber(patterns.get());
        const int found = isDatabaseForRecovery(path.c_str());
        require(getFIFOItemNumber(patterns.get()) == before - found, "a name is recovered once");
    }
    g_sQRTLN_Global.lhNotesFileList = nullptr;
}

// The text that an argument leaves is input of the next one.
void checkArguments(const std::vector<std::string>& lines) {
    char szOut[kPathSize] = "";
    FifoList arguments(CreateFIFOList());
    for (const std::string& line : lines) {
        require(handleRelativeArguments(line.c_str(), szOut) == 0, "handleRelativeArguments");
        require(std::memchr(szOut, '\0', sizeof szOut) != nullptr, "an argument ends");
        if (szOut[0] != '\0') {
            require(pushPath(arguments.get(), szOut, DB_BACKUP_FILE_TYPE_DB) != FALSE,
                    "an argument fits");
        }
    }
    fuzz::checkQueue(arguments.get());

    // What a backup selects with them: existing files alone, each with a whole path.
    g_sQRTLN_Global.lhNotesFileList = CreateFIFOList();
    getParticularFileList(arguments.get());
    fuzz::checkQueue(g_sQRTLN_Global.lhNotesFileList);
    DestroyFIFOList(g_sQRTLN_Global.lhNotesFileList);
    g_sQRTLN_Global.lhNotesFileList = nullptr;
}

void checkDirectories(const std::string& first, const std::string& second) {
    for (const int length : {-1, 0, 1, 1027, static_cast<int>(first.size())}) {
        const bool equal = length <= 0 || first.substr(0, static_cast<std::size_t>(length)) ==
                                              second.substr(0, static_cast<std::size_t>(length));
        require((OSStrnCmpDir(first.c_str(), second.c_str(), length) == 0) == equal,
                "OSStrnCmpDir");
    }
    IsValidPattern(first.c_str());
    x_Stat(first.c_str());
}

} // namespace

void fuzz::runInput(std::string_view input) {
    prepareDataTree();
    clearRecord();
    std::vector<std::string> lines;
    for (const std::string_view line : split(input, '\n')) {
        lines.push_back(expanded(line));
    }
    if (lines.size() > 64) {
        lines.resize(64); // every line meets every other one
    }
    g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_FULL;
    copyText(g_sQRTLN_Global.szNotesDataDirectory,
             lines[0].empty() ? (folder() + "/data/").c_str() : lines[0].c_str());
    lines.erase(lines.begin());
    for (const std::string& line : lines) {
        checkNames(line);
        checkDirectories(line, lines.back());
    }
    checkPatterns(lines);
    checkArguments(lines);
    require(!refusedChange() && closeLeftStreams() == 0, "a look changes nothing, leaves nothing");
}
