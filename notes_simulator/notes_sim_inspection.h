/*
 * What tests ask and tell the simulated libnotes.so beside the C API. This header names none of
 * the C API's types, so that it can stand beside any other declaration of them.
 */
#ifndef NOTES_SIM_INSPECTION_H
#define NOTES_SIM_INSPECTION_H

/* The library is built with hidden symbols; these are the ones it exports. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of objects that NotesSimOutstanding counts. */
enum NotesSimKind {
    NOTES_SIM_DATABASES = 0,       /* open database handles */
    NOTES_SIM_BACKUP_CONTEXTS = 1, /* backup contexts that this process opened and did not end */
    NOTES_SIM_APPLY_CONTEXTS = 2,  /* contexts for applying change information */
    NOTES_SIM_ID_TABLES = 3,       /* ID tables */
    NOTES_SIM_MEMORY_OBJECTS = 4,  /* memory objects */
    NOTES_SIM_LOCKED_OBJECTS = 5   /* memory objects that are locked */
};

/* Replaces the faults by those of the text (as in NOTES_SIM_FAULTS; "" means none) and counts
   calls and fired faults from zero. Returns 0, or 1 when the text is not valid; nothing is
   changed then. */
int NotesSimSetFaults(const char* text);

/* How many faults have fired since the faults were set. */
unsigned NotesSimFaultsFired(void);

/* How many objects of a NotesSimKind exist in this process; 0 for an unknown kind. */
unsigned NotesSimOutstanding(int kind);

/* Forgets every handle of this process without telling the server, as if the process had been
   killed: contexts and an archiving session stay open on the server. */
void NotesSimAbandon(void);

/* The companions that were in the process when libnotes.so was loaded: 1 libndgts.so,
   2 libxmlproc.so, 3 both. */
int NotesSimCompanions(void);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
