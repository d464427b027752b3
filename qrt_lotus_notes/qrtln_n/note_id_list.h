// The ids of the documents that a restore is to bring back: as a file of the client's, and as
// texts.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>

#include "notes_api/types.h"
#include "qrt_lotus_notes/operation_state.h"

// Room for the text of an id with its NUL.
using NoteIdText = char[16];

// Writes an id as lists of ids have it: decimal, and negative with the high bit set, as the C
// function that wrote them once took it for an int.
void formatNoteId(NOTEID id, NoteIdText& szNoteId);

// Writes the path of the client's list, noteids_list.txt in the data directory. False when it does
// not fit; szPath is cut then.
bool buildNoteIdListPath(char (&szPath)[kPathSize]);

// Queues every line of the list at `path`, empty ones and pieces of overlong ones too. False
// (traced) when it could not be read to its end; the queue then has what came before.
bool readNoteIdList(const char* path, LIST_INFO* lhNoteIds);

// The texts of a queue of ids (NULL: none), which stays as it is, to be looked up in constant time:
// a walk over the queue for each of a database's documents would cost their product.
std::unordered_set<std::string> noteIdTexts(const LIST_INFO* lhNoteIds);
