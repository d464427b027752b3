// Buffered file primitives over the system's streams. Functions return an error number (0 for
// success) or a BOOL, as each says. Names are native byte strings; messages show them in UTF-8.
#pragma once

#include <cstdio>

#include "qrt_lotus_notes/operation_state.h"

// Working size of one read or write call: the chunk of the database copy.
inline constexpr DWORD QRTLN_BUFFER_SIZE = 32768;
// Size of the stream buffers, full buffering.
inline constexpr std::size_t kStreamBufferSize = 2097152;

// Creates every missing level of a directory, mode 0775. 0 at once when the path exists. On failure
// the buffer stays cut behind the directory that could not be created.
int SysFileCreateDirectory(char* cpDirectory);

// Opens for writing: "rb+" when the file exists (it is NOT truncated: bytes beyond the new length
// remain), else "wb". The stream uses the one static output buffer.
int SysFileCreate(const char* cpFileName, FILE** fhRetFile);

// Closes; an error that shows only now is returned.
int SysFileClose(FILE* hFile);

// Opens for reading and writing ("rb+"), no create.
int SysFileOpen(const char* cpFileName, FILE** fhRetFile);

// Opens for reading ("rb"). The stream uses the one static input buffer.
int SysFileOpenRead(const char* cpFileName, FILE** fhRetFile);

// Seeks to dwPos bytes from the start, or from the end when dwLoc is not 0.
int SysFileSeek(FILE* hFile, DWORD dwPos, DWORD dwLoc);

// Writes or reads exactly dwCount bytes. A short transfer returns errno, which at end of file is 0
// when no error was set before: callers ask only for bytes that they know exist.
int SysFileWrite(FILE* hFile, const char* pData, DWORD dwCount);
int SysFileRead(FILE* hFile, char* pData, DWORD dwCount);

// Deletes; a missing file counts as deleted, one that cannot be examined does not.
int SysFileDelete(const char* cpFileName);

// Whether a path exists, of any kind; FALSE for NULL.
BOOL SysFileExists(const char* cpFile);

// Whether nothing is there for certain. What cannot be examined exists for nobody and may be there
// all the same: for decisions that would cost something then.
bool isMissing(const char* cpFile);

// Copies a file over the target, which is truncated or created. TRUE when every byte reached it,
// its closing included; on FALSE the target may hold a part. An existing target is not touched with
// bFailIfExists, nor when it is the source itself (both FALSE).
BOOL SysFileCopy(const char* cpSource, const char* cpTarget, BOOL bFailIfExists);

// Stand-ins for what only other platforms have.
BOOL OSIsArchiveAttributeSet(const char* cpFile); // always TRUE
int OSResetArchiveAttribute(const char* cpFile);  // always 0
BOOL OSIsDevice(const char* cpPath);              // always FALSE; called by nobody here

// Compares the first iLen characters of two directory names, case-sensitively: 0 when equal.
int OSStrnCmpDir(const char* cpDir1, const char* cpDir2, int iLen);
