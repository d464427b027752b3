#include "qrt_lotus_notes/qrtln_u/messages.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <string>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/syserrtxt.h"

namespace {

// The client's callbacks run between a failed call and the reader of its errno.
class ErrnoKeeper {
  public:
    ~ErrnoKeeper() { errno = m_errno; }

  private:
    int m_errno = errno;
};

void removeLineEnds(char* text) {
    std::size_t length = std::strlen(text);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) {
        text[--length] = '\0';
    }
}

// The formats of trace() carry a level that the compiler does not know, so it cannot check them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void formatMessage(char (&message)[kMessageSize], const char* format, va_list arguments) {
    message[0] = '\0';
    std::vsnprintf(message, sizeof message, format, arguments);
}
#pragma GCC diagnostic pop

void formatAndCall(TYPE_DB_MessageFunc callback, const char* format, va_list arguments) {
    const ErrnoKeeper keeper;
    char szMessage[kMessageSize];
    formatMessage(szMessage, format, arguments);
    removeLineEnds(szMessage);
    callback(szMessage);
}

// Code of an error that came without one of its own.
constexpr unsigned long kUnspecificError = 2;

} // namespace

void(DB_TraceExt)(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    formatAndCall(g_sQRTLN_Global.vpTraceFunc, format, arguments);
    va_end(arguments);
}

void(DB_LogExt)(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    formatAndCall(g_sQRTLN_Global.vpLogFunc, format, arguments);
    va_end(arguments);
}

void DB_TraceExt_ln(const char* text) {
    if (isTracing()) {
        const ErrnoKeeper keeper;
        g_sQRTLN_Global.vpTraceFunc(text);
    }
}

void trace(const char* format, ...) {
    if (!isTracing()) {
        return;
    }
    const bool hasLevel = format[0] == '%' && format[1] == 'l' &&
                          std::isdigit(static_cast<unsigned char>(format[2])) != 0 &&
                          format[3] == ' ';
    char szMessage[kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    formatMessage(szMessage, hasLevel ? format + 4 : format, arguments);
    va_end(arguments);
    DB_TraceExt_ln(szMessage);
}

void traceBanner(const char* format, ...) {
    if (!isTracing()) {
        return;
    }
    char szMessage[kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    formatMessage(szMessage, format, arguments);
    va_end(arguments);
    removeLineEnds(szMessage);
    const std::string line(std::strlen(szMessage), '=');
    DB_TraceExt_ln(line.c_str());
    DB_TraceExt_ln(szMessage);
    DB_TraceExt_ln(line.c_str());
}

void DB_ErrHandler(unsigned long ulSysErrCode, int iErrFlag, const char* format, ...) {
    const ErrnoKeeper keeper;
    char szMessage[kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    formatMessage(szMessage, format, arguments);
    va_end(arguments);
    removeLineEnds(szMessage);

    // The first error since the last fetch is the one that the client sees.
    QRTLN_Global& global = g_sQRTLN_Global;
    if (global.ulDBErrorCode == 0) {
        global.ulDBErrorCode = ulSysErrCode != 0 ? ulSysErrCode : kUnspecificError;
    }
    if (global.szDBErrorType[0] == '\0') {
        copyText(global.szDBErrorType, iErrFlag == kErrorKindErrno ? "Standard Library"
                                       : iErrFlag == kErrorKindApi ? "WIN32 API"
                                                                   : "");
    }
    const char* const text = syserrtxt(ulSysErrCode, iErrFlag, szMessage);
    DB_LogExt("DB_ErrHandler: %s", text);
    if (global.szDBErrorMsg[0] == '\0') {
        copyText(global.szDBErrorMsg, text);
    }
}

void takeError(TYPE_DB_Error* error) {
    QRTLN_Global& global = g_sQRTLN_Global;
    error->ulDBErrorCode = global.ulDBErrorCode;
    copyText(error->szDBErrorType, global.szDBErrorType);
    copyText(error->szDBErrorMsg, global.szDBErrorMsg);
    global.ulDBErrorCode = 0;
    std::memset(global.szDBErrorType, 0, sizeof global.szDBErrorType);
    std::memset(global.szDBErrorMsg, 0, sizeof global.szDBErrorMsg);
}

char* getSysMsg(unsigned int number) {
    static char szSysMsg[kMessageSize];
    formatText(szSysMsg, sizeof szSysMsg, "%s",
               std::strerror(number != 0 ? static_cast<int>(number) : errno));
    return szSysMsg;
}
