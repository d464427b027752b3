// The control variables of an operation, and small text functions.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Reads the control variables into the global record and queues the database arguments. Returns
// 3000 when there was at least one DATABASE, else 1000 (reported).
int ProcessCtrlVars(char** _cppI_CtrlVars);

// Converts s to upper case in place; returns s.
char* str_upper(char* s);

// Copies src to dst without blanks and tabs around it, and without line ends behind it; the
// trailing ones are removed in src itself. Returns dst. REQUIRES: dst has room for src.
char* str_strip(char* dst, char* src);

// Reads one value from a file in INI form into value[1512]. `section` includes its brackets; NULL:
// the file's beginning. Returns 3000 when found, else 1000. Called by nobody here: part of the
// unit's interface.
int ini_get_value(const char* file, const char* section, const char* key, char* value);

// A placeholder for a platform's path conversion. Returns 3000.
int SetOsPath(char* path);
