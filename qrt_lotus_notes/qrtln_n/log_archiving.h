// Hand-over of transaction logs.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// The server's log style. 3000, or 1000 (reported; the style is NOLOG when logging is not in
// effect).
int getSystemLogStyle(DB_LOGGING_STYLE* ep_DbLoggingStyle);

// Opens an archiving session. 3000, 11 circular or linear, 14 no logging, 1000 (reported).
int beginArchiveLogs();

// Ends the archiving session. 3000 (also without logging), 11 circular or linear, 1000 (reported).
int endArchiveLogs();

// Hands out the next log: each extent ready to be archived, then once the active log. cpFile and
// cpBackupDirectory (1028 bytes each) receive its path and directory. 3000 with a log, 3001 no
// more, 11 circular or linear, 14 no logging, 1000.
int getArchiveLog(char* cpFile, char* cpBackupDirectory, BOOL bFirstPass, DWORD* pdwLogNumber,
                  UNIVERSALNOTEID* LogId, BOOL* bpActiveLogBackup);

// Tells the server that a log is archived; not for the active log. 3000, else 1000 (reported).
int finishArchiveLog(DWORD* pdwLogNumber, UNIVERSALNOTEID* LogId, BOOL bActiveLogBackup);

// beginArchiveLogs with a report for the client. 3000, 11, 14 or 1000.
int QRTLN_InitArchiveLogs();

// getArchiveLog with a trace of its answer.
int QRTLN_GetArchiveFile(char* cpFile, char* cpBackupDirectory, BOOL bFirstPass,
                         DWORD* pdwLogNumber, UNIVERSALNOTEID* LogId, BOOL* bpActiveLogBackup);
