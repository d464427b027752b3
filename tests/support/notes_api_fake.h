// The Notes C API without a server: every slot of the table is filled with a function that tells of
// its call and hands out the answer to it. Where the answers come from is for a derived class to
// say.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "notes_api/notes_api.h"

// A call, without the arguments that only take something out.
struct NotesCall {
    std::string_view function;
    std::vector<DWORD> numbers = {}; // the arguments that are numbers or handles
    std::string text = {};           // the function and its arguments, separated by blanks
};

// The answer to a call. Outputs that it does not give stay as the caller left them.
struct NotesAnswer {
    STATUS status = 0;
    std::vector<DWORD> numbers = {}; // output numbers and handles, in the order of the arguments
    std::string text = {};           // output text or bytes
    UNIVERSALNOTEID id = {};
    std::function<void()> effect = {}; // runs during the call
};

// While it lives the table is its own; only one may live at a time.
class NotesApiFake {
  public:
    NotesApiFake();
    virtual ~NotesApiFake(); // leaves an empty table
    NotesApiFake(const NotesApiFake&) = delete;
    NotesApiFake& operator=(const NotesApiFake&) = delete;

    // Answers every call but those of the two functions below, of IDScan too, say, which goes by
    // `tables` whatever the answer.
    virtual NotesAnswer answer(const NotesCall& call) = 0;
    virtual std::string translated(WORD mode, const std::string& text) const = 0; // OSTranslate
    virtual std::string textOf(STATUS status) const = 0;                          // OSLoadString

    std::map<DHANDLE, std::vector<NOTEID>> tables; // of ids; IDInsert that succeeds adds to them
    std::map<DHANDLE, std::vector<BYTE>> memory;   // that can be locked
    INTLFORMAT settings = {};                      // OSGetIntlSettings
    std::size_t scanned = 0;                       // IDScan's place in its table
};
