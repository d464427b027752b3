// The one list of the Notes C API functions that the module and the client's check use. The table,
// its loading and the stand-ins of the tests and fuzzers are made of it.
//
//   NOTES_FUNCTION(result, name, (parameters), handles)
//
// `handles` says what a call does with handles, for each argument that is a number, in their order:
// d database, b backup, a application of changes, t table of ids, m memory, "." no handle. A
// capital letter gives the handle back; one behind "+" comes out of a success. The fuzzers hold the
// module to it.
//
// Included several times, hence no guard: each includer defines NOTES_FUNCTION, which ends with the
// list.
// clang-format off

// Runtime
NOTES_FUNCTION(STATUS, NotesInitExtended, (int argc, char** argv), "")
NOTES_FUNCTION(void, NotesTerm, (), "")
NOTES_FUNCTION(WORD, OSGetDataDirectory, (char* retPathName), "")
NOTES_FUNCTION(BOOL, OSGetEnvironmentString,
               (const char* VariableName, char* retValueBuffer, WORD BufferLength), "")
NOTES_FUNCTION(WORD, OSLoadString,
               (HMODULE hModule, STATUS StringCode, char* retBuffer, WORD BufferLength), "")
NOTES_FUNCTION(WORD, OSTranslate,
               (WORD TranslateMode, const char* In, WORD InLength, char* Out, WORD OutLength), "")
NOTES_FUNCTION(STATUS, OSMemAlloc, (WORD BlkType, DWORD dwSize, DHANDLE* retHandle), "+m")
NOTES_FUNCTION(void*, OSLockObject, (DHANDLE), "m")
NOTES_FUNCTION(BOOL, OSUnlockObject, (DHANDLE), "m")
NOTES_FUNCTION(STATUS, OSMemFree, (DHANDLE), "M")

// Times
NOTES_FUNCTION(void, OSGetIntlSettings, (INTLFORMAT* retIntlFormat, WORD BufferSize), "")
NOTES_FUNCTION(STATUS, ConvertTextToTIMEDATE,
               (const void* IntlFormat, const void* TextFormat, char** Text, WORD MaxLength,
                TIMEDATE* retTIMEDATE), "")
NOTES_FUNCTION(STATUS, ConvertTIMEDATEToText,
               (const void* IntlFormat, const void* TextFormat, const TIMEDATE* InputTime,
                char* retTextBuffer, WORD TextBufferLength, WORD* retTextLength), "")
NOTES_FUNCTION(void, TimeConstant, (WORD TimeConstantType, TIMEDATE* td), "")

// Users
NOTES_FUNCTION(STATUS, SECKFMGetUserName, (char* retUserName), "")

// Databases
NOTES_FUNCTION(STATUS, NSFDbOpen, (const char* PathName, DBHANDLE* rethDB), "+d")
NOTES_FUNCTION(STATUS, NSFDbClose, (DBHANDLE), "D")
NOTES_FUNCTION(STATUS, NSFDbGetBuildVersion, (DBHANDLE, WORD* retVersion), "d")
NOTES_FUNCTION(STATUS, NSFDbIDGet, (DBHANDLE, DBID* retDbID), "d")
NOTES_FUNCTION(STATUS, NSFDbGetLogInfo,
               (DBHANDLE, DWORD Flags, BOOL* Logged, UNIVERSALNOTEID* LogID,
                UNIVERSALNOTEID* DbIID, DWORD* LogExtent), "d")
NOTES_FUNCTION(STATUS, NSFDbGetModifiedNoteTable,
               (DBHANDLE, WORD NoteClassMask, TIMEDATE Since, TIMEDATE* retUntil,
                DHANDLE* rethTable), "d+t")
NOTES_FUNCTION(STATUS, NSFTakeDatabaseOffline, (char* DbName, DWORD WaitTime, DWORD Options), "")
NOTES_FUNCTION(STATUS, NSFBringDatabaseOnline, (char* DbName, DWORD Options), "")
NOTES_FUNCTION(STATUS, NSFRecoverDatabases,
               (char* DbNames, LOGRESTORECALLBACKFUNCTION, DWORD Flags, WORD* errDbIndex,
                TIMEDATE* recoveryTime), "")

// Notes: copying and deleting them, unread marks, tables of their ids
NOTES_FUNCTION(STATUS, NSFDbCopyNote,
               (DBHANDLE hSrcDB, DBID* SrcDBID, DBID* SrcReplicaID, NOTEID SrcNoteID,
                DBHANDLE hDstDB, DBID* DstDBID, DBID* DstReplicaID, NOTEID* retDstNoteID,
                WORD* retNoteClass), "d.d")
NOTES_FUNCTION(STATUS, NSFNoteDelete, (DBHANDLE, NOTEID, WORD UpdateFlags), "d")
NOTES_FUNCTION(STATUS, NSFDbGetUnreadNoteTable,
               (DBHANDLE, char* UserName, WORD UserNameLength, BOOL fCreateIfNotAvailable,
                DHANDLE* rethUnreadList), "d+t")
NOTES_FUNCTION(STATUS, NSFDbUpdateUnread, (DBHANDLE, DHANDLE hUnreadList), "dt")
NOTES_FUNCTION(STATUS, NSFDbSetUnreadNoteTable,
               (DBHANDLE, char* UserName, WORD UserNameLength, BOOL fFlushToDisk,
                DHANDLE hOriginalUnreadList, DHANDLE hUnreadList), "d..tt")
NOTES_FUNCTION(DWORD, IDEntries, (DHANDLE), "t")
NOTES_FUNCTION(BOOL, IDScan, (DHANDLE, BOOL fFirst, NOTEID* retID), "t")
NOTES_FUNCTION(BOOL, IDIsPresent, (DHANDLE, NOTEID), "t")
NOTES_FUNCTION(STATUS, IDInsert, (DHANDLE, NOTEID, BOOL* retfInserted), "t")
NOTES_FUNCTION(STATUS, IDTableCopy, (DHANDLE, DHANDLE* rethTable), "t+t")
NOTES_FUNCTION(STATUS, IDDestroyTable, (DHANDLE), "T")

// Online backup
NOTES_FUNCTION(STATUS, NSFBackupStart,
               (DBHANDLE, DWORD Flags, DHANDLE* hBackupContext, DWORD* FileSizeLow,
                DWORD* FileSizeHigh), "d+b")
NOTES_FUNCTION(STATUS, NSFBackupSetHighWaterMark,
               (DBHANDLE, DHANDLE hBackupContext, DWORD Low, DWORD High), "db")
NOTES_FUNCTION(STATUS, NSFBackupStop, (DBHANDLE, DHANDLE hBackupContext), "db")
NOTES_FUNCTION(STATUS, NSFBackupGetChangeInfoSize,
               (DBHANDLE, DHANDLE hBackupContext, DWORD Flags, DWORD* InfoSizeLow,
                DWORD* InfoSizeHigh), "db")
NOTES_FUNCTION(STATUS, NSFBackupGetNextChangeInfo,
               (DBHANDLE, DHANDLE hBackupContext, DWORD Flags, BYTE* Buffer, DWORD BufferSize,
                DWORD* FilledSize), "db")
NOTES_FUNCTION(STATUS, NSFBackupStartApplyChangeInfo,
               (DHANDLE* ApplyInfoContext, char* CopyFilePath, DWORD Flags, DWORD InfoSizeLow,
                DWORD InfoSizeHigh), "+a")
NOTES_FUNCTION(STATUS, NSFBackupApplyNextChangeInfo,
               (DHANDLE ApplyInfoContext, DWORD Flags, BYTE* Buffer, DWORD BufferSize), "a")
NOTES_FUNCTION(STATUS, NSFBackupEndApplyChangeInfo, (DHANDLE ApplyInfoContext, DWORD Flags), "A")
NOTES_FUNCTION(STATUS, NSFBackupEnd, (DBHANDLE, DHANDLE hBackupContext, DWORD Options), "dB")
NOTES_FUNCTION(STATUS, NSFIsNewBackupNeeded,
               (char* DbName, DWORD ComfortSpan, DWORD* BackupNeeded), "")

// Transaction logs
NOTES_FUNCTION(STATUS, NSFGetTransLogStyle, (WORD* LogType), "")
NOTES_FUNCTION(STATUS, NSFBeginArchivingLogs, (), "")
NOTES_FUNCTION(STATUS, NSFEndArchivingLogs, (), "")
NOTES_FUNCTION(STATUS, NSFGetFirstLogToArchive,
               (UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath), "")
NOTES_FUNCTION(STATUS, NSFGetNextLogToArchive,
               (UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath), "")
NOTES_FUNCTION(STATUS, NSFDoneArchivingLog, (UNIVERSALNOTEID* LogID, DWORD* LogNumber), "")
// clang-format on
#undef NOTES_FUNCTION
