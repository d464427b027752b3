// Types of the Notes C API on 64-bit Linux, written down by hand. Declarations only: this header
// lies at the bottom of the house, because the records of the module hold these types.
#pragma once

#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t; // 32 bits on this platform too
using BOOL = int;

// The error number is the low 14 bits; 0x4000 and 0x8000 are flags (displayed, remote).
using STATUS = WORD;
inline constexpr STATUS kStatusNumberMask = 0x3FFF;

// Whether a status has this error number. Its two flags (the error was displayed, or comes from
// another server) make no other error of it.
constexpr bool isStatus(STATUS status, STATUS number) {
    return (status & kStatusNumberMask) == number;
}

// Handles: 0 is no handle.
using DHANDLE = DWORD;
using DBHANDLE = DWORD;
using HMODULE = DWORD;
using NOTEID = DWORD;

// Innards[0]: hundredths of a second since midnight GMT. Innards[1]: low 24 bits the Julian day
// number, high byte the zone and daylight flags.
struct TIMEDATE {
    DWORD Innards[2];
};
static_assert(sizeof(TIMEDATE) == 8);

using DBID = TIMEDATE;

struct UNIVERSALNOTEID {
    TIMEDATE File;
    TIMEDATE Note;
};
static_assert(sizeof(UNIVERSALNOTEID) == 16);

struct TFMT {
    BYTE Date;
    BYTE Time;
    BYTE Zone;
    BYTE Structure;
};
static_assert(sizeof(TFMT) == 4);

struct INTLFORMAT {
    WORD Flags;
    BYTE CurrencyDigits;
    BYTE Length;
    int TimeZone;
    char AMString[5];
    char PMString[5];
    char CurrencyString[5];
    char ThousandString[5];
    char DecimalString[5];
    char DateString[5];
    char TimeString[5];
    char YesterdayString[32];
    char TodayString[32];
    char TomorrowString[32];
};
static_assert(sizeof(INTLFORMAT) == 140);

// What NSFRecoverDatabases asks for each log that it needs: 0 when the log is at the path.
using LOGRESTORECALLBACKFUNCTION = STATUS (*)(UNIVERSALNOTEID* LogID, DWORD LogNumber,
                                              char* LogSegmentPathName);

// Statuses that the module tells apart.
inline constexpr STATUS kNotesNoError = 0;
inline constexpr STATUS kNotesNoSuchFile = 259;
inline constexpr STATUS kNotesAccessDenied = 272;
inline constexpr STATUS kNotesInvalidDirectory = 499;
inline constexpr STATUS kNotesNotADatabase = 513;
inline constexpr STATUS kNotesNoNoteModified = 572;
inline constexpr STATUS kNotesBackupInProgress = 3748;
inline constexpr STATUS kNotesArchivingInProgress = 3758;
inline constexpr STATUS kNotesNoLogToArchive = 5086;
inline constexpr STATUS kNotesDatabaseInUse = 5098;
inline constexpr STATUS kNotesNotBackedUp = 5114;
inline constexpr STATUS kNotesLoggingNotInEffect = 5119;

// OSTranslate modes, and the source length that means "up to the terminating NUL".
inline constexpr WORD kTranslateNativeToLmbcs = 0;
inline constexpr WORD kTranslateLmbcsToUtf8 = 22;
inline constexpr WORD kTranslateWholeString = 0xFFFF;

// TimeConstant type of the time that is earlier than every other.
inline constexpr WORD kTimeWildcard = 2;

// Transaction log styles of NSFGetTransLogStyle.
inline constexpr WORD kLogStyleCircular = 0;
inline constexpr WORD kLogStyleArchive = 1;
inline constexpr WORD kLogStyleLinear = 2;
