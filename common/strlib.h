// Small text functions.
#pragma once

// Returns the first character of s that is not white space, or its terminator; NULL for NULL.
char* strskp(char* s);

// Returns a copy of s without white space at its end, cut at 1024 bytes, in a static buffer that
// the next call overwrites; NULL for NULL.
char* strcrop(const char* s);
