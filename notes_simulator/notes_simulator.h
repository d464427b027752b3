/*
 * The simulated libnotes.so: the part of the Notes C API that the simulator implements.
 *
 * It is no mock. The state of a server lies on disk, several processes share it, and a call left
 * out or made out of order loses data that a test can see missing.
 *
 * 1. A server is a folder, made by `domino-sim init`:
 *
 *      SERVER/notes.ini    the server's variables (SERVER/data/notes.ini is the same file)
 *      SERVER/data/        the data directory: databases (.nsf .ntf .box .ncf ...), IDs, settings
 *      SERVER/logs/        the transaction log: S0000001.TXN ... and nlogctrl.lfh
 *      SERVER/state/       what the server's processes share: backup contexts, what was backed up,
 *                          what is offline, locks. The administrator's business is everything but
 *                          this folder.
 *
 *    Variables of notes.ini that count here: Directory, NotesProgram, TRANSLOG_Status (1: logging
 *    is on), TRANSLOG_Style (0 circular, 1 archive, 2 linear), TRANSLOG_Path, TRANSLOG_MaxSize
 *    (MiB; sizes the ring of a circular log), and of the simulator's own: TRANSLOG_SimExtentSize
 *    (bytes in an extent, at least 65536, 1 MiB when missing), SimUserName, SimDateOrder (MDY, DMY
 *    or YMD), SimDateSeparator, SimTimeSeparator, SimZone ("+05:30": texts of times are in this
 *    zone, east of GMT, instead of the process's own), SimDirectory (what OSGetDataDirectory
 *    tells, as a library does that has read another notes.ini), SimStrict (see 9). DAOSBasePath is
 *    the folder in which domino-sim puts the objects of attachments (DAOS below the data directory
 *    when missing).
 *
 * 2. A database is one SQLite file without neighbours: rollback journals lie in the state folder.
 *    Its pages change in place, so that a plain copy of a database in use is torn. While a backup
 *    context is open, every range of it that any process writes or cuts off is recorded; the
 *    change information is those ranges as they were at NSFBackupStop (but see 9, "before"). A text
 *    file with the name of a database whose first line is a full path is a database link: the
 *    server opens that one, and sizes and changes are then those of that one, whatever file the
 *    caller reads.
 *
 * 3. The log. A logged database writes each transaction to the active extent, then to itself; what
 *    a killed writer left between the two is finished by the next process that opens a database
 *    or writes. Templates, databases outside the data directory and databases created unlogged do
 *    not use the log. A full extent of an archive-style log waits until NSFDoneArchivingLog, which
 *    removes it: from then on only a backup has it.
 *
 * 4. Environment variables:
 *
 *      NOTES_SIM_FAULTS   calls that are to fail: "NSFBackupStart#2=3748,NSFDbOpen=513" makes the
 *                         second NSFBackupStart and every NSFDbOpen fail with these statuses. A
 *                         failed call does nothing. One whose result is no STATUS fails in its own
 *                         way: a length of 0, FALSE, NULL, an unchanged buffer. NotesTerm cannot
 *                         fail. A text that is not valid fails NotesInitExtended (16142).
 *                         The text is read at a process's first call.
 *      NOTES_SIM_JOURNAL  a file to which every call is appended, a line each:
 *                         NSFDbOpen("mail/a.nsf") -> 0 hDB=258. A call that a fault failed ends in
 *                         "[fault]". NotesTerm and the end of the process append
 *                         "-- faults fired: N".
 *
 * 5. Statuses. Callers tell these apart: 259 no such file, 272 access denied, 499 invalid
 *    directory, 513 not a database, 572 no note modified, 3748 backup in progress, 3758 archiving
 *    in progress, 5086 no log ready to archive, 5098 database in use, 5114 not backed up on this
 *    instance of the log, 5119 no transaction logging. Others are the simulator's own, from 16129
 *    (0x3F01) on, 16146 for a database that is offline among them; OSLoadString has a text for
 *    each.
 *
 * 6. Paths that come in are LMBCS, but for the path of NSFIsNewBackupNeeded, which is native text.
 *    Paths that go out (data directory, log paths) are native text. A path may be relative to the
 *    data directory. Buffers without a length need 1028 bytes.
 *
 * 7. Handles are numbers that belong to one process; 0 is none. A pointer that is required and
 *    NULL, and a handle that is not one, are errors and never crash.
 *
 * 8. Threads: calls are serialised by one lock.
 *
 * 9. Moods. The variable SimStrict of notes.ini ("session,flags", or "all"; `domino-sim init
 *    --strict`) makes a server do what a real one may do and this one does not by default:
 *
 *      session   logs are listed only within an archiving session that the process began: 16160
 *      ended     a call after NotesTerm ends the process (SIGABRT) with a line on standard error
 *                that names it. Where NSFBeginArchivingLogs or NSFGetTransLogStyle had failed,
 *                or the style was not archive, NSFGetTransLogStyle, NSFEndArchivingLogs and
 *                OSLoadString are answered, and told
 *      flags     failing statuses carry flags: a process's first one 0x4000, the next 0x8000, the
 *                next both, and so on
 *      locale    where the locale of LC_ALL, LC_CTYPE or LANG is not UTF-8, OSTranslate gives
 *                length 0 for native text that is not ASCII
 *      zone      texts of times are read and written in another time zone: SimZone, which init
 *                sets to one that this machine's clock never shows; +05:30 without it
 *      before    change information is what was there at NSFBackupStart, size included, and leaves
 *                out what changed below the high-water mark: the copy is as of the start, and so
 *                is what the server remembers of the backup
 *      foreign   a backup that another process runs, which lives, is kept from others:
 *                NSFBackupStart answers 3748 without a handle and with that of the backup in turn,
 *                and NSFBackupEnd of it fails (16161)
 *      logs      logs are numbered from 0, or from SimFirstLog of notes.ini (`domino-sim init
 *                --first-log`), and after 4294967295 comes 0; the two halves of a log's identity
 *                are equal; the file of an archived extent is not removed but used again, under
 *                its name, for a later one. A recovery finds the extents that lie in the folder
 *                whatever their names; the callback is asked for one that is not there with a path
 *                at which no other lies
 *      slow      calls after the start take as long as the variable SimSlow of notes.ini says:
 *                "NSFBackupStart=2,NSFRecoverDatabases=never" (seconds, or they never return; no
 *                lock is held meanwhile); without it each tenth call takes a moment
 *
 * domino-sim plays the server and its users (see domino-sim --help): init, create, put, attach,
 * delete, show, unread, workload, check, backups, logs, hold, offline, online, compact, saved,
 * damage, lose. docs/simulator-files.md describes the files.
 */
#ifndef NOTES_SIMULATOR_H
#define NOTES_SIMULATOR_H

#include <stdint.h>

#include "notes_simulator/notes_sim_inspection.h"

typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t BOOL;
typedef WORD STATUS;
typedef DWORD DHANDLE;
typedef DWORD DBHANDLE;
typedef DWORD HMODULE;
typedef DWORD NOTEID;

/* A point in time in GMT: hundredths of a second since midnight, then the Julian day number. */
typedef struct TIMEDATE {
    DWORD Innards[2];
} TIMEDATE;
typedef TIMEDATE DBID;

typedef struct UNIVERSALNOTEID {
    TIMEDATE File;
    TIMEDATE Note;
} UNIVERSALNOTEID;

/* Which parts of a time are text and how. Both parts are always written and read here. */
typedef struct TFMT {
    BYTE Date;
    BYTE Time;
    BYTE Zone;
    BYTE Structure;
} TFMT;

/* How numbers and dates are written. Of Flags, 0x0020 month-day-year, 0x0040 day-month-year and
   0x0080 year-month-day count here. */
typedef struct INTLFORMAT {
    WORD Flags;
    BYTE CurrencyDigits;
    BYTE Length;
    int TimeZone;
    char AMString[5];
    char PMString[5];
    char CurrencyString[5];
    char ThousandString[5];
    char DecimalString[5];
    char DateString[5];
    char TimeString[5];
    char YesterdayString[32];
    char TodayString[32];
    char TomorrowString[32];
} INTLFORMAT;

/* The library is built with hidden symbols; these are the ones it exports. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* --- The runtime ------------------------------------------------------------------------------ */

/* Starts the runtime. An argument that begins with "=" names the notes.ini; without one it is
   looked for in the current directory, then in those of PATH. 272 when it may not be read; 499
   when there is none, its Directory is missing, or that is not a server's. */
STATUS NotesInitExtended(int argc, char** argv);

/* Closes every handle of this process and ends its backup contexts unfinished. The functions of
   the transaction log go on working with the last server. */
void NotesTerm(void);

/* The data directory, without a trailing "/". Returns its length; 0 on failure. */
WORD OSGetDataDirectory(char* retPathName);

/* A variable of notes.ini. FALSE when it is missing or does not fit with its terminating NUL. */
BOOL OSGetEnvironmentString(const char* VariableName, char* retValueBuffer, WORD BufferLength);

/* The text of a status, cut to the buffer and terminated. Returns its length. */
WORD OSLoadString(HMODULE hModule, STATUS StringCode, char* retBuffer, WORD BufferLength);

/* Converts text: mode 0 native to LMBCS, 1 LMBCS to native, 22 LMBCS to UTF-8. InLength 0xFFFF
   means up to the NUL, and then the result is terminated too. Writes at most OutLength bytes and
   cuts no character in two. Returns the length without the NUL; 0 for an unknown mode. */
WORD OSTranslate(WORD TranslateMode, const char* In, WORD InLength, char* Out, WORD OutLength);

/* Memory objects. Memory is not cleared. Freeing a locked object is allowed. */
STATUS OSMemAlloc(WORD BlkType, DWORD dwSize, DHANDLE* retHandle);
void* OSLockObject(DHANDLE Handle);
BOOL OSUnlockObject(DHANDLE Handle);
STATUS OSMemFree(DHANDLE Handle);

/* Writes the international settings, at most BufferSize bytes of them. */
void OSGetIntlSettings(INTLFORMAT* retIntlFormat, WORD BufferSize);

/* Reads a time of the server's zone "<date> <time>" in the settings' order and separators; NULL
   settings mean month/day/year. *Text is moved past what was read, also past blanks behind it. */
STATUS ConvertTextToTIMEDATE(const void* IntlFormat, const void* TextFormat, char** Text,
                             WORD MaxLength, TIMEDATE* retTIMEDATE);

/* Writes a time as "<date> <time>" of the server's zone. The text is not terminated; one that does
   not fit is an error and *retTextLength is 0. */
STATUS ConvertTIMEDATEToText(const void* IntlFormat, const void* TextFormat,
                             const TIMEDATE* InputTime, char* retTextBuffer, WORD TextBufferLength,
                             WORD* retTextLength);

/* The name of the user whose ID file the KeyFilename of notes.ini names: its SimUserName, or
   "CN=Admin/O=Simulated". At most 257 bytes with the NUL. 259 when the ID file is missing. */
STATUS SECKFMGetUserName(char* retUserName);

/* 0 the earliest time, 1 the latest, 2 the wildcard, which is earlier than every time. */
void TimeConstant(WORD TimeConstantType, TIMEDATE* td);

/* --- Databases -------------------------------------------------------------------------------- */

/* Opens a database: 259, 272, 513, 16146 when it is offline. The handle lasts until NSFDbClose. */
STATUS NSFDbOpen(const char* PathName, DBHANDLE* rethDB);
/* Closes the handle. A backup context of the database stays open. */
STATUS NSFDbClose(DBHANDLE hDB);
STATUS NSFDbGetBuildVersion(DBHANDLE hDB, WORD* retVersion);
STATUS NSFDbIDGet(DBHANDLE hDB, DBID* retDbID);

/* Whether changes go through the log, and the identities: of the log, of this instance of the
   database, and the number of the active extent (0 when not logged). NULL pointers are skipped. */
STATUS NSFDbGetLogInfo(DBHANDLE hDB, DWORD Flags, BOOL* Logged, UNIVERSALNOTEID* LogID,
                       UNIVERSALNOTEID* DbIID, DWORD* LogExtent);

/* A new table of the notes of these classes changed at or after Since; ids of deleted ones have
   0x80000000 set. 572 and no table when there are none. retUntil receives the present time. */
STATUS NSFDbGetModifiedNoteTable(DBHANDLE hDB, WORD NoteClassMask, TIMEDATE Since,
                                 TIMEDATE* retUntil, DHANDLE* rethTable);

/* Copies a note into another database as a change of it like any other: logged, with the present
   time. Note id and universal id stay; a deletion stub that has one of them is replaced. 16147
   when a note of the destination has one of them, 16148 when a DBID or replica id that is given
   is not that of its database, 16143 when the source has no such note. The pointers to ids and
   outputs may be NULL. */
STATUS NSFDbCopyNote(DBHANDLE hSrcDB, DBID* SrcDBID, DBID* SrcReplicaID, NOTEID SrcNoteID,
                     DBHANDLE hDstDB, DBID* DstDBID, DBID* DstReplicaID, NOTEID* retDstNoteID,
                     WORD* retNoteClass);
/* Deletes a note, which leaves a stub with the present time. 16143 when there is no such note;
   UpdateFlags do not count. Unread marks of the note stay until NSFDbUpdateUnread. */
STATUS NSFNoteDelete(DBHANDLE hDB, NOTEID NoteID, WORD UpdateFlags);

/* Unread marks of a user, whose name is the UserNameLength bytes at UserName, in LMBCS. No note
   becomes unread by itself: marks are what NSFDbSetUnreadNoteTable has set. */

/* A new table of the notes that are marked unread for the user, notes that are gone included. A
   user without marks gets an empty table with fCreateIfNotAvailable, else 16149. */
STATUS NSFDbGetUnreadNoteTable(DBHANDLE hDB, char* UserName, WORD UserNameLength,
                               BOOL fCreateIfNotAvailable, DHANDLE* rethUnreadList);
/* Brings a table up to date: ids of notes that are gone leave it. */
STATUS NSFDbUpdateUnread(DBHANDLE hDB, DHANDLE hUnreadList);
/* Sets the marks of ids that hUnreadList has and hOriginalUnreadList has not, and takes away those
   of ids that it no longer has; others stay as they are. A change of the database like any other,
   written at once whatever fFlushToDisk says. 16143 when an id to be marked is no note's. */
STATUS NSFDbSetUnreadNoteTable(DBHANDLE hDB, char* UserName, WORD UserNameLength, BOOL fFlushToDisk,
                               DHANDLE hOriginalUnreadList, DHANDLE hUnreadList);

/* ID tables. IDScan goes through the ids in ascending order. */
DWORD IDEntries(DHANDLE hTable);
BOOL IDScan(DHANDLE hTable, BOOL fFirst, NOTEID* retID);
BOOL IDIsPresent(DHANDLE hTable, NOTEID id);
STATUS IDInsert(DHANDLE hTable, NOTEID id, BOOL* retfInserted);
STATUS IDTableCopy(DHANDLE hTable, DHANDLE* rethTable);
STATUS IDDestroyTable(DHANDLE hTable);

/* --- Backup of a database --------------------------------------------------------------------- */

/* Opens a backup context and gives the size to copy. 3748 when one is open already, be it left by
   a killed process: *hBackupContext is that one then, and NSFBackupEnd with 1 clears it. 3748
   without a handle while the database is compacted. */
STATUS NSFBackupStart(DBHANDLE hDB, DWORD Flags, DHANDLE* hBackupContext, DWORD* FileSizeLow,
                      DWORD* FileSizeHigh);
/* Says how far the copy has got. It informs: whatever changes is recorded all the same, but in the
   mood "before", which records nothing below it any more. */
STATUS NSFBackupSetHighWaterMark(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Low, DWORD High);
/* Freezes the changes, with their content, and the size of the database as they are now; in the
   mood "before" as they were at the start. */
STATUS NSFBackupStop(DBHANDLE hDB, DHANDLE hBackupContext);
/* The bytes of change information that NSFBackupGetNextChangeInfo will give; after the stop. */
STATUS NSFBackupGetChangeInfoSize(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Flags,
                                  DWORD* InfoSizeLow, DWORD* InfoSizeHigh);
/* The next piece, at most BufferSize bytes; *FilledSize 0 at the end. */
STATUS NSFBackupGetNextChangeInfo(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Flags, BYTE* Buffer,
                                  DWORD BufferSize, DWORD* FilledSize);
/* Opens a copy for changes. Naming the database itself while its context is open is allowed: it
   has the changes already, so that they are only verified. */
STATUS NSFBackupStartApplyChangeInfo(DHANDLE* ApplyInfoContext, char* CopyFilePath, DWORD Flags,
                                     DWORD InfoSizeLow, DWORD InfoSizeHigh);
/* Takes the next piece, whatever its size; 0 is allowed. */
STATUS NSFBackupApplyNextChangeInfo(DHANDLE ApplyInfoContext, DWORD Flags, BYTE* Buffer,
                                    DWORD BufferSize);
/* 0 completes: an error when something is missing. 1 gives up. The context is gone in any case. */
STATUS NSFBackupEndApplyChangeInfo(DHANDLE ApplyInfoContext, DWORD Flags);
/* 0 completes: the database counts as backed up. 1 gives up. The context is gone, except that one
   completed before its stop is an error and stays open. */
STATUS NSFBackupEnd(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Options);

/* 5114 while no backup has ended under the database's present DBIID. Otherwise *BackupNeeded is
   the bytes of log written since the last one when ComfortSpan is 0, else whether (1 or 0) they
   exceed ComfortSpan. */
STATUS NSFIsNewBackupNeeded(char* DbName, DWORD ComfortSpan, DWORD* BackupNeeded);

/* --- Offline and online ----------------------------------------------------------------------- */

/* Takes a database offline: nobody can open it (16146) until it is brought online, in this process
   or another, also after all of them have ended. Its file may be replaced meanwhile. A leftover
   backup context of it is given up. 5098 when a process, this one included, has it open and does
   not close it within WaitTime seconds; 259; 513. One that is offline already stays so. Options
   must be 0. */
STATUS NSFTakeDatabaseOffline(char* DbName, DWORD WaitTime, DWORD Options);
/* Brings a database online with whatever file lies in its place now; one that is online stays so.
   259 when there is none, 513 when that is no database: it stays offline. A logged database that
   lacks changes of its instance that the log has, such as an older copy, gets a new DBIID: it
   counts as never backed up, and the log cannot roll it forward from earlier. Options must be 0. */
STATUS NSFBringDatabaseOnline(char* DbName, DWORD Options);

/* --- Recovery --------------------------------------------------------------------------------- */

/* Asked for each extent that a recovery needs, in order, before it is read and whether or not it
   lies there: LogPath (native text) is where it must lie when the callback returns 0. The callback
   may call this library. */
typedef STATUS (*LOGRESTORECALLBACKFUNCTION)(UNIVERSALNOTEID* LogId, DWORD LogNumber,
                                             char* LogPath);

/* Rolls databases forward: replays what the log has of each beyond its file's last change. DbNames
   are paths, each with its NUL, and one more NUL. A database is known by its DBIID, whatever its
   path: a restored copy outside the data directory, or a database in place, online or offline, that
   nobody has open. Flags 4 keeps the DBIIDs; 2 gives each database a new one, so that it counts as
   never backed up.

   recoveryTime NULL recovers to the end of the log as it is when the call begins; a time includes
   the changes committed at it, to the hundredth of a second. The log is taken to be in the order of
   its times. An instance of a database ends where it got a new DBIID: changes after that are of
   another one, which needs a backup of its own.

   The result is 0, or 5114 when all is done but for databases that this log does not know, which
   are left as they are: databases that are not logged, or by another log. Any other status leaves
   the databases as they were, but for a disk that fails during the writing: databases written
   before keep their changes then, and a second call goes on to the same result, also after a
   process was killed. *errDbIndex is 0, or the place (from 1) of the database that failed; with
   5114 or for an extent, of the first one concerned:
     259, 272, 513  the database is missing, may not be read, is none
     5098           a process has it open
     16139          an extent is damaged, or the log lacks records before the next extent
     16150          the callback did not return 0, or the extent is not there
     16151          the extent is of another log, or has another number
     16152          the log's records do not continue where the database ends
     16153          the database is later than recoveryTime
   5119 without transaction logging; 16130 for other flags, an empty list, a database named twice,
   or a NULL pointer other than recoveryTime. */
STATUS NSFRecoverDatabases(char* DbNames, LOGRESTORECALLBACKFUNCTION LogRestore, DWORD Flags,
                           WORD* errDbIndex, TIMEDATE* recoveryTime);

/* --- The transaction log ---------------------------------------------------------------------- */

/* 5119 when there is no logging. */
STATUS NSFGetTransLogStyle(WORD* LogType);
/* 3758 while a session is open on the server, be it left by a killed process. */
STATUS NSFBeginArchivingLogs(void);
/* Ends the session, whoever began it; without one it does nothing. */
STATUS NSFEndArchivingLogs(void);
/* The first, or the next, extent that is full and not archived. 5086 when there is none (more):
   the outputs are those of the active extent then. */
STATUS NSFGetFirstLogToArchive(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath);
STATUS NSFGetNextLogToArchive(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath);
/* The extent has been archived: the server removes it, or uses its file again (mood logs). */
STATUS NSFDoneArchivingLog(UNIVERSALNOTEID* LogID, DWORD* LogNumber);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
