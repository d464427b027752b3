// System error texts.
#pragma once

// The kinds of errors that DB_ErrHandler and syserrtxt take.
inline constexpr int kErrorKindNone = 0;
inline constexpr int kErrorKindErrno = 1;
inline constexpr int kErrorKindApi = 2;
inline constexpr int kErrorKindResolver = 5;

// Builds an error text from a system code and a description: the system's text, a "." where it does
// not end in one, a blank and the description. Kinds (iErrFlag): 0 none, 1 errno, 2 (no texts on
// this platform), 4 as 1, 5 resolver. The description (NULL: none) is taken as it stands but for
// "%%", which becomes "%", and is cut at 255 characters. Returns a static buffer of 512 bytes that
// the next call overwrites; it is empty, without the description, where a kind has no text for the
// code.
char* syserrtxt(unsigned long ulSysErrCode, int iErrFlag, const char* cpAddDesc);
