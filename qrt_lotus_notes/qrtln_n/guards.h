// Guards for what a backup or a document restore holds: each undoes its step when it leaves scope,
// so the reverse of the order of construction is the order of undoing. A success is said with a
// named call.
//
// What a destructor calls can fail too. That is ignored: it runs because something failed before,
// which is what the client has to hear of.
#pragma once

#include <cstdio>
#include <cstring>

#include "common/non_copyable.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"

// Options of NSFBackupEnd and flags of NSFBackupEndApplyChangeInfo.
inline constexpr DWORD kBackupComplete = 0;
inline constexpr DWORD kBackupAbort = 1;
// Block type of the working buffer.
inline constexpr WORD kBufferBlockType = 0x8000;

// An open database; closed at the end of scope.
class DatabaseGuard : NonCopyable {
  public:
    ~DatabaseGuard() { close(); }

    STATUS open(const char* lmbcsPath) {
        const STATUS status = notes_api.NSFDbOpen(lmbcsPath, &m_handle);
        if (status != kNotesNoError) {
            m_handle = 0; // whatever the failed call left in it is no handle
        }
        return status;
    }
    STATUS close() {
        const DBHANDLE handle = release();
        return handle != 0 ? notes_api.NSFDbClose(handle) : kNotesNoError;
    }
    // Gives the handle up without closing it.
    DBHANDLE release() {
        const DBHANDLE handle = m_handle;
        m_handle = 0;
        return handle;
    }
    DBHANDLE handle() const { return m_handle; }

  private:
    DBHANDLE m_handle = 0;
};

// A table of note ids; destroyed at the end of scope.
class IdTableGuard : NonCopyable {
  public:
    ~IdTableGuard() { destroy(); }

    // Takes over what the call puts into the handle when it succeeds. Returns its status.
    template <typename Call>
    STATUS fill(Call call) {
        destroy();
        const STATUS status = call(&m_handle);
        if (status != kNotesNoError) {
            m_handle = 0; // whatever the failed call left in it is no table
        }
        return status;
    }
    void destroy() {
        if (m_handle != 0) {
            notes_api.IDDestroyTable(m_handle);
            m_handle = 0;
        }
    }
    DHANDLE handle() const { return m_handle; }

  private:
    DHANDLE m_handle = 0;
};

// A backup context of an open database; aborted at the end of scope. REQUIRES: outlived by the
// database.
class BackupContextGuard : NonCopyable {
  public:
    explicit BackupContextGuard(DBHANDLE hDB) : m_hDB(hDB) {}
    ~BackupContextGuard() {
        if (m_active) {
            end(kBackupAbort);
        }
    }

    STATUS start(DWORD* sizeLow, DWORD* sizeHigh) {
        const STATUS status = notes_api.NSFBackupStart(m_hDB, 0, &m_context, sizeLow, sizeHigh);
        m_active = status == kNotesNoError;
        return status;
    }
    STATUS end(DWORD options) {
        m_active = false;
        return notes_api.NSFBackupEnd(m_hDB, m_context, options);
    }
    // Leaves the context open.
    DHANDLE release() {
        m_active = false;
        return m_context;
    }
    DHANDLE handle() const { return m_context; }

  private:
    DBHANDLE m_hDB;
    DHANDLE m_context = 0;
    bool m_active = false;
};

// The working buffer, a locked memory object of QRTLN_BUFFER_SIZE bytes.
class BufferGuard : NonCopyable {
  public:
    enum class Release {
        unlockAndFree,
        freeOnly, // the preparation in place frees the object while it is locked, by contract
    };

    explicit BufferGuard(Release release) : m_release(release) {}
    ~BufferGuard() { free(); }

    STATUS allocate() {
        const STATUS status = notes_api.OSMemAlloc(kBufferBlockType, QRTLN_BUFFER_SIZE, &m_handle);
        if (status != kNotesNoError) {
            m_handle = 0;
            return status;
        }
        m_data = static_cast<BYTE*>(notes_api.OSLockObject(m_handle));
        return kNotesNoError;
    }
    void free() {
        if (m_data != nullptr && m_release == Release::unlockAndFree) {
            notes_api.OSUnlockObject(m_handle);
        }
        if (m_handle != 0) {
            notes_api.OSMemFree(m_handle);
        }
        m_data = nullptr;
        m_handle = 0;
    }
    // nullptr when the object could not be locked.
    BYTE* data() const { return m_data; }

  private:
    Release m_release;
    DHANDLE m_handle = 0;
    BYTE* m_data = nullptr;
};

// The application of change information to a file; aborted at the end of scope.
class ApplyContextGuard : NonCopyable {
  public:
    ~ApplyContextGuard() {
        if (m_active) {
            end(kBackupAbort);
        }
    }

    STATUS start(char* lmbcsPath, DWORD sizeLow, DWORD sizeHigh) {
        const STATUS status =
            notes_api.NSFBackupStartApplyChangeInfo(&m_context, lmbcsPath, 0, sizeLow, sizeHigh);
        m_active = status == kNotesNoError;
        return status;
    }
    STATUS end(DWORD flags) {
        m_active = false;
        return notes_api.NSFBackupEndApplyChangeInfo(m_context, flags);
    }
    DHANDLE handle() const { return m_context; }

  private:
    DHANDLE m_context = 0;
    bool m_active = false;
};

// A stream opened by the file primitives; closed at the end of scope.
class StreamGuard : NonCopyable {
  public:
    ~StreamGuard() { close(); }

    FILE** slot() { return &m_stream; }
    FILE* stream() const { return m_stream; }
    // Returns 0 or the error number that showed only now.
    int close() {
        FILE* stream = m_stream;
        m_stream = nullptr;
        return stream != nullptr ? SysFileClose(stream) : 0;
    }

  private:
    FILE* m_stream = nullptr;
};

// The copy of a database under the temporary directory: its stream is closed and the file deleted
// at the end of scope, unless it is kept. The path is not copied.
class TemporaryCopyGuard : NonCopyable {
  public:
    explicit TemporaryCopyGuard(const char* path) : m_path(path) {}
    ~TemporaryCopyGuard() {
        m_stream.close();
        if (m_created) {
            SysFileDelete(m_path);
        }
    }

    int create() {
        const int error = SysFileCreate(m_path, m_stream.slot());
        m_created = error == 0;
        return error;
    }
    FILE* stream() const { return m_stream.stream(); }
    int closeStream() { return m_stream.close(); }
    void keep() { m_created = false; }

  private:
    const char* m_path;
    StreamGuard m_stream;
    bool m_created = false;
};
