// The one list of the Notes C API functions that the module uses, as a typed table.
//
//   STATUS status = notes_api.NSFDbOpen(szTmpFile, &hDB);
//
// A test puts a function of its own in a slot (notes_api.NSFDbOpen = &openOfTheTest); a wrong
// signature does not compile. Nothing else in the module names the outside library.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "notes_api/types.h"

// One slot of the table: the function's name in the library and its address, nullptr until loaded.
class NotesSlot {
  public:
    NotesSlot(NotesSlot*& first, const char* name) : m_name(name), m_next(first) { first = this; }
    NotesSlot(const NotesSlot&) = delete;
    NotesSlot& operator=(const NotesSlot&) = delete;

    const char* name() const { return m_name; }
    NotesSlot* next() const { return m_next; }
    void* address() const { return m_address; }
    void setAddress(void* address) { m_address = address; }

  private:
    const char* m_name;
    NotesSlot* m_next;
    void* m_address = nullptr;
};

template <typename Signature>
class NotesFunction;

// A slot that is called like the function it holds. REQUIRES: the slot is filled.
template <typename Result, typename... Arguments>
class NotesFunction<Result(Arguments...)> : public NotesSlot {
  public:
    using NotesSlot::NotesSlot;

    Result operator()(Arguments... arguments) const {
        return reinterpret_cast<Result (*)(Arguments...)>(address())(arguments...);
    }
    NotesFunction& operator=(Result (*function)(Arguments...)) {
        setAddress(reinterpret_cast<void*>(function));
        return *this;
    }
};

// The table. Slots link themselves into `first`, the newest first.
struct NotesApi {
    NotesSlot* first = nullptr;

    // Runtime
    NotesFunction<STATUS(int argc, char** argv)> NotesInitExtended{first, "NotesInitExtended"};
    NotesFunction<void()> NotesTerm{first, "NotesTerm"};
    NotesFunction<WORD(char* retPathName)> OSGetDataDirectory{first, "OSGetDataDirectory"};
    NotesFunction<BOOL(const char* VariableName, char* retValueBuffer, WORD BufferLength)>
        OSGetEnvironmentString{first, "OSGetEnvironmentString"};
    NotesFunction<WORD(HMODULE hModule, STATUS StringCode, char* retBuffer, WORD BufferLength)>
        OSLoadString{first, "OSLoadString"};
    NotesFunction<WORD(WORD TranslateMode, const char* In, WORD InLength, char* Out,
                       WORD OutLength)>
        OSTranslate{first, "OSTranslate"};
    NotesFunction<STATUS(WORD BlkType, DWORD dwSize, DHANDLE* retHandle)> OSMemAlloc{first,
                                                                                     "OSMemAlloc"};
    NotesFunction<void*(DHANDLE)> OSLockObject{first, "OSLockObject"};
    NotesFunction<BOOL(DHANDLE)> OSUnlockObject{first, "OSUnlockObject"};
    NotesFunction<STATUS(DHANDLE)> OSMemFree{first, "OSMemFree"};

    // Times
    NotesFunction<void(INTLFORMAT* retIntlFormat, WORD BufferSize)> OSGetIntlSettings{
        first, "OSGetIntlSettings"};
    NotesFunction<STATUS(const void* IntlFormat, const void* TextFormat, char** Text,
                         WORD MaxLength, TIMEDATE* retTIMEDATE)>
        ConvertTextToTIMEDATE{first, "ConvertTextToTIMEDATE"};
    NotesFunction<STATUS(const void* IntlFormat, const void* TextFormat, const TIMEDATE* InputTime,
                         char* retTextBuffer, WORD TextBufferLength, WORD* retTextLength)>
        ConvertTIMEDATEToText{first, "ConvertTIMEDATEToText"};
    NotesFunction<void(WORD TimeConstantType, TIMEDATE* td)> TimeConstant{first, "TimeConstant"};

    // Users
    NotesFunction<STATUS(char* retUserName)> SECKFMGetUserName{first, "SECKFMGetUserName"};

    // Databases
    NotesFunction<STATUS(const char* PathName, DBHANDLE* rethDB)> NSFDbOpen{first, "NSFDbOpen"};
    NotesFunction<STATUS(DBHANDLE)> NSFDbClose{first, "NSFDbClose"};
    NotesFunction<STATUS(DBHANDLE, WORD* retVersion)> NSFDbGetBuildVersion{first,
                                                                           "NSFDbGetBuildVersion"};
    NotesFunction<STATUS(DBHANDLE, DBID* retDbID)> NSFDbIDGet{first, "NSFDbIDGet"};
    NotesFunction<STATUS(DBHANDLE, DWORD Flags, BOOL* Logged, UNIVERSALNOTEID* LogID,
                         UNIVERSALNOTEID* DbIID, DWORD* LogExtent)>
        NSFDbGetLogInfo{first, "NSFDbGetLogInfo"};
    NotesFunction<STATUS(DBHANDLE, WORD NoteClassMask, TIMEDATE Since, TIMEDATE* retUntil,
                         DHANDLE* rethTable)>
        NSFDbGetModifiedNoteTable{first, "NSFDbGetModifiedNoteTable"};
    NotesFunction<STATUS(char* DbName, DWORD WaitTime, DWORD Options)> NSFTakeDatabaseOffline{
        first, "NSFTakeDatabaseOffline"};
    NotesFunction<STATUS(char* DbName, DWORD Options)> NSFBringDatabaseOnline{
        first, "NSFBringDatabaseOnline"};

    NotesFunction<STATUS(char* DbNames, LOGRESTORECALLBACKFUNCTION, DWORD Flags, WORD* errDbIndex,
                         TIMEDATE* recoveryTime)>
        NSFRecoverDatabases{first, "NSFRecoverDatabases"};

    // Notes: copying and deleting them, unread marks, tables of their ids
    NotesFunction<STATUS(DBHANDLE hSrcDB, DBID* SrcDBID, DBID* SrcReplicaID, NOTEID SrcNoteID,
                         DBHANDLE hDstDB, DBID* DstDBID, DBID* DstReplicaID, NOTEID* retDstNoteID,
                         WORD* retNoteClass)>
        NSFDbCopyNote{first, "NSFDbCopyNote"};
    NotesFunction<STATUS(DBHANDLE, NOTEID, WORD UpdateFlags)> NSFNoteDelete{first, "NSFNoteDelete"};
    NotesFunction<STATUS(DBHANDLE, char* UserName, WORD UserNameLength, BOOL fCreateIfNotAvailable,
                         DHANDLE* rethUnreadList)>
        NSFDbGetUnreadNoteTable{first, "NSFDbGetUnreadNoteTable"};
    NotesFunction<STATUS(DBHANDLE, DHANDLE hUnreadList)> NSFDbUpdateUnread{first,
                                                                           "NSFDbUpdateUnread"};
    NotesFunction<STATUS(DBHANDLE, char* UserName, WORD UserNameLength, BOOL fFlushToDisk,
                         DHANDLE hOriginalUnreadList, DHANDLE hUnreadList)>
        NSFDbSetUnreadNoteTable{first, "NSFDbSetUnreadNoteTable"};
    NotesFunction<DWORD(DHANDLE)> IDEntries{first, "IDEntries"};
    NotesFunction<BOOL(DHANDLE, BOOL fFirst, NOTEID* retID)> IDScan{first, "IDScan"};
    NotesFunction<BOOL(DHANDLE, NOTEID)> IDIsPresent{first, "IDIsPresent"};
    NotesFunction<STATUS(DHANDLE, NOTEID, BOOL* retfInserted)> IDInsert{first, "IDInsert"};
    NotesFunction<STATUS(DHANDLE, DHANDLE* rethTable)> IDTableCopy{first, "IDTableCopy"};
    NotesFunction<STATUS(DHANDLE)> IDDestroyTable{first, "IDDestroyTable"};

    // Online backup
    NotesFunction<STATUS(DBHANDLE, DWORD Flags, DHANDLE* hBackupContext, DWORD* FileSizeLow,
                         DWORD* FileSizeHigh)>
        NSFBackupStart{first, "NSFBackupStart"};
    NotesFunction<STATUS(DBHANDLE, DHANDLE hBackupContext, DWORD Low, DWORD High)>
        NSFBackupSetHighWaterMark{first, "NSFBackupSetHighWaterMark"};
    NotesFunction<STATUS(DBHANDLE, DHANDLE hBackupContext)> NSFBackupStop{first, "NSFBackupStop"};
    NotesFunction<STATUS(DBHANDLE, DHANDLE hBackupContext, DWORD Flags, DWORD* InfoSizeLow,
                         DWORD* InfoSizeHigh)>
        NSFBackupGetChangeInfoSize{first, "NSFBackupGetChangeInfoSize"};
    NotesFunction<STATUS(DBHANDLE, DHANDLE hBackupContext, DWORD Flags, BYTE* Buffer,
                         DWORD BufferSize, DWORD* FilledSize)>
        NSFBackupGetNextChangeInfo{first, "NSFBackupGetNextChangeInfo"};
    NotesFunction<STATUS(DHANDLE* ApplyInfoContext, char* CopyFilePath, DWORD Flags,
                         DWORD InfoSizeLow, DWORD InfoSizeHigh)>
        NSFBackupStartApplyChangeInfo{first, "NSFBackupStartApplyChangeInfo"};
    NotesFunction<STATUS(DHANDLE ApplyInfoContext, DWORD Flags, BYTE* Buffer, DWORD BufferSize)>
        NSFBackupApplyNextChangeInfo{first, "NSFBackupApplyNextChangeInfo"};
    NotesFunction<STATUS(DHANDLE ApplyInfoContext, DWORD Flags)> NSFBackupEndApplyChangeInfo{
        first, "NSFBackupEndApplyChangeInfo"};
    NotesFunction<STATUS(DBHANDLE, DHANDLE hBackupContext, DWORD Options)> NSFBackupEnd{
        first, "NSFBackupEnd"};
    NotesFunction<STATUS(char* DbName, DWORD ComfortSpan, DWORD* BackupNeeded)>
        NSFIsNewBackupNeeded{first, "NSFIsNewBackupNeeded"};

    // Transaction logs
    NotesFunction<STATUS(WORD* LogType)> NSFGetTransLogStyle{first, "NSFGetTransLogStyle"};
    NotesFunction<STATUS()> NSFBeginArchivingLogs{first, "NSFBeginArchivingLogs"};
    NotesFunction<STATUS()> NSFEndArchivingLogs{first, "NSFEndArchivingLogs"};
    NotesFunction<STATUS(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath)>
        NSFGetFirstLogToArchive{first, "NSFGetFirstLogToArchive"};
    NotesFunction<STATUS(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath)>
        NSFGetNextLogToArchive{first, "NSFGetNextLogToArchive"};
    NotesFunction<STATUS(UNIVERSALNOTEID* LogID, DWORD* LogNumber)> NSFDoneArchivingLog{
        first, "NSFDoneArchivingLog"};
};

extern NotesApi notes_api;

// The outcome of loadNotesApi: `error` is empty on success, else the one message for the user;
// `missing` has the names of all functions that the library lacks.
struct NotesApiLoad {
    std::string error;
    std::vector<std::string> missing;
};

// Fills the empty slots of `notes_api`, once for the process: from the process's global scope when
// NotesInitExtended is already there; else from libnotes.so (with its companions libndgts.so and
// libxmlproc.so loaded first where they exist) in $Notes_ExecDirectory; else by the loader's own
// search. A failed load leaves the table empty and may be tried again. A table that a test has
// filled is left as it is.
NotesApiLoad loadNotesApi();
