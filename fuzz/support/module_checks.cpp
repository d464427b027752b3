#include "fuzz/support/module_checks.h"

#include <cstring>
#include <filesystem>

#include "fuzz/support/confinement.h"
#include "fuzz/support/target.h"

namespace fuzz {

namespace {

template <std::size_t size>
bool isTerminated(const char (&text)[size]) {
    return std::memchr(text, '\0', size) != nullptr;
}

bool isTruthValue(BOOL value) {
    return value == FALSE || value == TRUE;
}

} // namespace

void checkMessage(const char* text) {
    require(text != nullptr && std::strlen(text) < kMessageSize, "a message of at most 1511 bytes");
}

void clearRecord() {
    g_sQRTLN_Global = QRTLN_Global{};
    g_sQRTLN_Global.vpTraceFunc = &checkMessage;
    g_sQRTLN_Global.vpLogFunc = &checkMessage;
    forgetRefusals();
}

void checkRecord() {
    const QRTLN_Global& global = g_sQRTLN_Global;
    require(isTerminated(global.szDB_User) && isTerminated(global.szRelocationDir) &&
                isTerminated(global.szTmpDir) && isTerminated(global.szDB_Notesini) &&
                isTerminated(global.szNotesDataDirectory) &&
                isTerminated(global.szNotesBinDirectory) && isTerminated(global.szDB_SinceTime) &&
                isTerminated(global.szDBErrorType) && isTerminated(global.szDBErrorMsg) &&
                isTerminated(global.szPointInTime) && isTerminated(szCurrentOriginalDirectory),
            "every text ends within its buffer");
    require(isTruthValue(global.bNotesInitialized) && isTruthValue(global.bWithArchiveLogs) &&
                isTruthValue(global.bNewDbiid) && isTruthValue(global.bRecovery) &&
                isTruthValue(global.bActivate) && isTruthValue(global.bPlainRestore) &&
                isTruthValue(global.bTerminate),
            "every switch is a truth value");
}

void checkQueue(const LIST_INFO* queue) {
    require(queue != nullptr, "there is a queue");
    int count = 0;
    const LIST_ITEM* last = nullptr;
    for (const LIST_ITEM* item = queue->spFirstItem; item != nullptr; item = item->spNextItem) {
        ++count;
        last = item;
        const auto size = static_cast<std::size_t>(item->iDataSize);
        const void* end = std::memchr(item->vpData, '\0', size);
        require(size <= kPathSize && end == static_cast<const char*>(item->vpData) + size - 1,
                "a record is a path with its NUL");
    }
    require(count == queue->iItemCount && last == queue->spLastItem, "the queue is whole");
}

void prepareDataTree() {
    static bool bDone = false;
    if (bDone) {
        return;
    }
    bDone = true;
    const std::string data = folder() + "/data/";
    for (const char* directory : {"mail/archive", "mail[1]", "empty"}) {
        std::filesystem::create_directories(data + directory);
    }
    for (const char* file :
         {"names.nsf", "log.NSF", "mail.box", "pubnames.ntf", "notes.ini", ".hidden.nsf",
          "mail/anna.nsf", "mail/b c.nsf", "mail/old.ns4", "mail/archive/a.nsf", "mail[1]/x.nsf"}) {
        writeFile(data + file, "content");
    }
    std::filesystem::create_directory_symlink("..", data + "mail/up");
}

} // namespace fuzz
