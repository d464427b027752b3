// Reading a directory entry by entry, and telling the client what could not be read.
#pragma once

#include <cerrno>
#include <climits>
#include <cstddef>
#include <dirent.h>

#include "common/non_copyable.h"
#include "qrt_lotus_notes/operation_state.h"

// Room for a path buffer, a delimiter and one more path: what a name may grow to before it is
// measured.
inline constexpr std::size_t kUnmeasuredPathSize = 2 * kPathSize + NAME_MAX;

// The entries of a directory, "" being the root; closed at the end of scope. False when it could
// not be opened, which errno tells then. close() says whether there was one to close, and closed
// it.
class DirectoryReader : NonCopyable {
  public:
    explicit DirectoryReader(const char* path) : m_stream(opendir(*path ? path : "/")) {}
    ~DirectoryReader() { close(); }

    explicit operator bool() const { return m_stream != nullptr; }

    // The next entry; nullptr at the end and on an error, which errno tells apart (0: the end).
    const dirent* read() {
        errno = 0;
        return readdir(m_stream);
    }

    bool close() {
        DIR* stream = m_stream;
        m_stream = nullptr;
        return stream != nullptr && closedir(stream) == 0;
    }

  private:
    DIR* m_stream;
};

// Whether an entry is "." or "..".
bool isDotEntry(const char* name);

// Tells the client of what is left out because its directory could not be read, in whichever pass.
// What has vanished holds nothing.
void tellLeftOut(const char* cpFunction, const char* cpPath, int error);

// Tells the client when reading a directory ended with an error other than 0.
void tellNotReadToEnd(const char* cpFunction, const char* cpPath, int error);
