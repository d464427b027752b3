// The one record of the running operation, and the record that travels with each item.
//
// DB_InitOperation fills it, every unit reads and writes it directly, DB_CloseOperation releases
// what it owns. Nothing here is guarded: the client calls the entry points one at a time from one
// thread. DB_Terminate alone may come from another thread; it writes bTerminate and nothing else.
#pragma once

#include <cstddef>
#include <ctime>

#include "common/LL.h"
#include "notes_api/types.h"
#include "qrt_lotus_notes/db_interface.h"

struct _LIST_INFO;
using LIST_INFO = _LIST_INFO;

#ifndef TRUE
inline constexpr BOOL TRUE = 1;
inline constexpr BOOL FALSE = 0;
#endif

// Size of every path buffer, with the terminating NUL.
inline constexpr std::size_t kPathSize = 1028;
// Size of every message buffer, with the terminating NUL.
inline constexpr std::size_t kMessageSize = 1512;
inline constexpr char kDelimiter = '/';

enum QRTLN_OPERATION_TYPE {
    QRTLN_OPERATION_TYPE_NOTES = 0,      // the whole Domino system
    QRTLN_OPERATION_TYPE_PARTICULAR = 1, // the databases named in the control variables
};

enum DB_BACKUP_FILE_TYPE {
    DB_BACKUP_FILE_TYPE_DB = 0,    // a database or other data file
    DB_BACKUP_FILE_TYPE_SYS = 1,   // a system file or directory
    DB_BACKUP_FILE_TYPE_LOG = 2,   // a transaction log
    DB_BACKUP_FILE_TYPE_NOTES = 3, // not used by the module itself
};

enum e_LNDocRecoveryType {
    LNDocRecoveryType_del = 1, // restore deleted documents
    LNDocRecoveryType_chg = 2, // restore changed documents
    LNDocRecoveryType_non = 3, // restore whole databases
};

enum DB_LOGGING_STYLE {
    DB_LOGGING_STYLE_ARCH = 1,
    DB_LOGGING_STYLE_CIRC = 2, // circular, and linear where the system's style is asked for
    DB_LOGGING_STYLE_NOLOG = 3,
};

// What a recovery does beyond what the other control variables ask for: all FALSE, or chosen by
// ROLLFORWARD.
struct RecoveryChoices {
    BOOL bSearchesForDatabases; // the search of the whole system looks for databases
    BOOL bSelectsWhatIsMissing; // an argument for which nothing exists is selected as it is given
    BOOL bFindsPending;         // the search for restored copies lists those that it finds
    BOOL bExcludesExactly;      // an exclusion removes the excluded entry and no other
    BOOL bCreatesDirectories;   // the directory of a lost original is created
    BOOL bKeepsUnplaced;        // a restored copy that could not be put in its place stays
    BOOL bBringsBackOnline;     // originals are brought online again when the recovery fails
    BOOL bTellsOutcome;         // a log line for each database: recovered or not
    BOOL bToMoment;             // not to the end of the logs, but to tMoment
    time_t tMoment;             // changes committed at it are included; valid with bToMoment
};

struct QRTLN_Global {
    // Type and level of the running operation: set by DB_InitOperation, fixed for its duration.
    DB_OPERATION_TYPE eI_OperationType;
    DB_OPERATION_LEVEL eI_OperationLevel;
    // Whole system or particular databases: set from the database arguments by the initialisation
    // of a backup, restore or recovery; read by the log phase and by restore placement.
    QRTLN_OPERATION_TYPE eI_BackupType;
    // The Notes runtime is up: set by startNotesOperation, cleared by terminateNotesOperation.
    BOOL bNotesInitialized;
    // This backup archives transaction logs: set by DB_InitOperation after the backup is
    // initialised.
    BOOL bWithArchiveLogs;
    // Control variables NEWDBIID and RECOVERY were YES: reset by every operation.
    BOOL bNewDbiid;
    BOOL bRecovery;
    // Control variable ACTIVATE was YES: once set it stays for later operations of the process.
    BOOL bActivate;
    // Restored files go straight into the relocation directory (option -o of INFO).
    BOOL bPlainRestore;
    // The client asked to stop: set by DB_Terminate, cleared by DB_InitOperation, polled by the
    // copy loop. Use stopRequested() and requestStop(): it may be set from another thread.
    BOOL bTerminate;
    // Control variable DB_USER, "notes" without one.
    char szDB_User[128];
    // Target directory of a relocated restore, empty for the original place.
    char szRelocationDir[kPathSize];
    // Control variable TMP_DIR: where copies of databases are put; with or without a trailing "/".
    char szTmpDir[kPathSize];
    // Control variable NOTESINI; empty: the runtime's default. Stays for later operations.
    char szDB_Notesini[kPathSize];
    // Data and program directories, always ending in "/": set by DB_InitOperation.
    char szNotesDataDirectory[kPathSize];
    char szNotesBinDirectory[kPathSize];
    // Control variable SNC_TIME as given (stays for later operations) and in seconds since the
    // epoch (0 without one or when it cannot be read).
    char szDB_SinceTime[32];
    time_t tSinceTime;
    // Database arguments: made by ProcessCtrlVars, consumed and destroyed by the initialisation.
    LIST_INFO* lhArgumentFileList;
    // The items of the operation, each with its DB_BACKUP_FILE_TYPE: owned; NULL between
    // operations.
    LIST_INFO* lhNotesFileList;
    // s_CurrentItem records handed to the client and not yet finished, oldest first: owned.
    t_LL LL_CurrentItemList;
    // s_CurrentItem records of the logs to be marked archived at close: owned.
    t_LL LL_ArchivedLogList;
    // The client's callbacks, NULL until set; they outlive the operation.
    TYPE_DB_MessageFunc vpTraceFunc;
    TYPE_DB_MessageFunc vpLogFunc;
    // The first error since DB_GetError was last called; code 0 and empty texts when there is none.
    char szDBErrorType[260];
    unsigned long ulDBErrorCode;
    char szDBErrorMsg[kMessageSize];
    // Database and backup context that PrepareDbForBackup leaves open until CloseDbBackup; 0: none.
    DHANDLE hCurrDB;
    DHANDLE hCurrBackupContext;
    // Document-level restore: set from INFO, `_non` otherwise.
    e_LNDocRecoveryType LNDocRecoveryType;
    // Point in time of a document-level restore, digits YYYYMMDDhhmm (more may follow).
    char szPointInTime[32];
    // Made from the control variables once and reset by every operation. Stays the last field.
    RecoveryChoices sRecoveryChoices;
};

// One item handed out or announced; lists hold it by value.
struct s_CurrentItem {
    char szCurrentListItem[kPathSize];           // its name, a full path
    DB_BACKUP_FILE_TYPE e_CurrentBackupFileType; // decides what finishing does
    BOOL bActiveLogBackup;                       // a log that is still written
    DWORD dwLogNumber;                           // number of a log, else 0
    UNIVERSALNOTEID LogId;                       // identity of a log, else zero
};

extern QRTLN_Global g_sQRTLN_Global;

// The restore directory last announced by a DIRECTORY item.
extern char szCurrentOriginalDirectory[kPathSize];
// Number of calls made to QRTLN_GetArchiveFile since the module was loaded. No operation resets it:
// only the first operation of a loaded module asks for a fresh log enumeration.
extern int iCounter;
// Whether the database last prepared was open on the server.
extern BOOL bFileOpen;

// The stop flag, safe to use while another thread sets it.
bool stopRequested();
void requestStop(bool stop);
