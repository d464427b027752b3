// The Notes C API functions of the list in functions.h, as a typed table.
//
//   STATUS status = notes_api.NSFDbOpen(szTmpFile, &hDB);
//
// A test puts a function of its own in a slot (notes_api.NSFDbOpen = &openOfTheTest); a wrong
// signature does not compile. Nothing else in the module names the outside library.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "notes_api/types.h"

// One slot of the table: the function's name in the library and its address, nullptr until loaded.
class NotesSlot {
  public:
    NotesSlot(NotesSlot*& first, const char* name) : m_name(name), m_next(first) { first = this; }
    NotesSlot(const NotesSlot&) = delete;
    NotesSlot& operator=(const NotesSlot&) = delete;

    const char* name() const { return m_name; }
    NotesSlot* next() const { return m_next; }
    void* address() const { return m_address; }
    void setAddress(void* address) { m_address = address; }

  private:
    const char* m_name;
    NotesSlot* m_next;
    void* m_address = nullptr;
};

template <typename Signature>
class NotesFunction;

// A slot that is called like the function it holds. REQUIRES: the slot is filled.
template <typename Result, typename... Arguments>
class NotesFunction<Result(Arguments...)> : public NotesSlot {
  public:
    using NotesSlot::NotesSlot;

    Result operator()(Arguments... arguments) const {
        return reinterpret_cast<Result (*)(Arguments...)>(address())(arguments...);
    }
    NotesFunction& operator=(Result (*function)(Arguments...)) {
        setAddress(reinterpret_cast<void*>(function));
        return *this;
    }
};

// The table: a slot for each function of the list, by its name. Slots link themselves into `first`,
// the newest first.
struct NotesApi {
    NotesSlot* first = nullptr;

// The linter wants parentheses around a name. NOLINTNEXTLINE(bugprone-macro-parentheses)
#define NOTES_FUNCTION(result, name, args, handles) NotesFunction<result args> name{first, #name};
#include "notes_api/functions.h"
};

extern NotesApi notes_api;

// The outcome of loadNotesApi: `error` is empty on success, else the one message for the user;
// `missing` has the names of all functions that the library lacks.
struct NotesApiLoad {
    std::string error;
    std::vector<std::string> missing;
};

// Fills the empty slots of `notes_api`, once for the process: from the process's global scope when
// NotesInitExtended is already there; else from libnotes.so (with its companions libndgts.so and
// libxmlproc.so loaded first where they exist) in $Notes_ExecDirectory; else by the loader's own
// search. A failed load leaves the table empty and may be tried again. A table that a test has
// filled is left as it is.
NotesApiLoad loadNotesApi();
