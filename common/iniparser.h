// Files in INI form on top of the dictionary.
//
// An entry is stored under "section:key", a section under its own name, without a value. Case is
// kept as written, there are no comment lines, and entries are written as key=value without blanks:
// the index files that exist are read and compared that way.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/dictionary.h"

// Reads a file ("-": standard input) into a new dictionary, which the caller releases with
// dictionary_del. Returns NULL, with errno, when it cannot be opened or read to its end; NULL with
// errno 0 when it holds no line at all. Lines longer than 1023 bytes are read in pieces, each a
// line of its own.
dictionary* iniparser_load(const char* ininame);

// Writes d in INI form: each section in slot order as an empty line, "[section]" and its entries as
// "key=value", and an empty line at the end; without any section every entry as "key = value".
// Nothing when either is NULL. Errors stay in the stream.
void iniparser_dump_ini(const dictionary* d, FILE* f);

// Sets "sec:key", or the section `sec` when key is NULL; a longer name than 2048 bytes is cut.
// Returns 0.
int iniparser_add_entry(dictionary* d, const char* sec, const char* key, const char* val);

// Returns the stored value of "section:key"; `def` when there is none or an argument is NULL.
char* iniparser_getstring(const dictionary* d, const char* key, char* def);

// The same with NULL as default.
char* iniparser_getstr(const dictionary* d, const char* key);

// The number of sections; -1 for a NULL dictionary.
int iniparser_getnsec(const dictionary* d);

// The name of section n (from 0, in slot order), owned by d; NULL when there is no such section.
// Called by nobody here: part of the unit's interface.
char* iniparser_getsecname(const dictionary* d, int n);

// Where the entries lie in a file that iniparser_update_dump keeps. Empty: not known.
struct IniDumpLayout {
    std::string path;
    std::string section;                // the last section of the file
    std::vector<long> valueAt;          // by slot: offset in bytes of the value, -1 for a section
    std::vector<std::size_t> valueSize; // by slot: length of the value as written
    long end = 0;                       // offset of the empty line that closes the file
    long wholes = 0;                    // bytes that were written as a whole so far
};

// The outcome of iniparser_update_dump: 0, or the errno of the call that failed.
struct IniDumpResult {
    int error;
    const char* call; // "fopen", "fwrite"; "" on success
};

// Brings the file at `path` to what iniparser_dump_ini writes for d, after the entry `key`
// ("section:key") was set: what N calls write is N entries, not N files. An entry that fits neither
// in its place nor at the end (its section is not the last, its value has another length) is
// written with the whole while that has cost little; in a large file it follows at the end, under
// its section's name again, where it counts for a reader as if it stood in its place. The whole is
// also written where the layout is not known, and after a failure. REQUIRES: every set since the
// last call was followed by a call with its key; nobody else writes the file.
IniDumpResult iniparser_update_dump(const dictionary* d, const char* key, const char* path,
                                    IniDumpLayout& layout);
