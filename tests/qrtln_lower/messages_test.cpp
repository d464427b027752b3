#include "qrt_lotus_notes/qrtln_u/messages.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "qrt_lotus_notes/syserrtxt.h"
#include "tests/support/message_capture.h"

using testing::ElementsAre;

namespace {

// The error that the host fetches: code, type and text.
std::string fetchError() {
    TYPE_DB_Error error;
    std::memset(&error, 0x7F, sizeof error);
    takeError(&error);
    return std::to_string(error.ulDBErrorCode) + "|" + error.szDBErrorType + "|" +
           error.szDBErrorMsg;
}

TEST(Messages, LoseLineEndsAndLevelsAreCutAndHaveBanners) {
    MessageCapture messages;
    DB_TraceExt("a\nb %d\r\n\n\r", 7);
    DB_TraceExt_ln("as it is\n");
    // The support sources begin a trace with its level.
    trace("%l4 %s", "%l4 argument");
    trace("%l0 plain");
    trace("%ld", 2L);
    trace("%lu4 ", 3UL);
    traceBanner("DB_PrepareItem() %s.", "x");
    DB_LogExt("%s", "\r\n");
    DB_LogExt("%s", std::string(4000, 'x').c_str());
    EXPECT_THAT(messages.traces(),
                ElementsAre("a\nb 7", "as it is\n", "%l4 argument", "plain", "2", "34 ",
                            "===================", "DB_PrepareItem() x.", "==================="));
    EXPECT_THAT(messages.logs(), ElementsAre("", std::string(1511, 'x')));
}

TEST(Messages, CallbacksDoNotDisturbErrno) {
    g_sQRTLN_Global.vpTraceFunc = [](const char*) { errno = 1; };
    g_sQRTLN_Global.vpLogFunc = [](const char*) { errno = 2; };
    errno = ENOSPC;
    DB_TraceExt("x");
    trace("x");
    DB_LogExt("x");
    DB_ErrHandler(ENOSPC, kErrorKindErrno, "x");
    EXPECT_EQ(errno, ENOSPC);
    g_sQRTLN_Global.vpTraceFunc = g_sQRTLN_Global.vpLogFunc = nullptr;
    fetchError();
}

TEST(Messages, FirstErrorWinsUntilItIsFetchedAndLaterOnesAreOnlyLogged) {
    MessageCapture messages;
    DB_ErrHandler(0, 0, "first %d\r\n", 1);
    DB_ErrHandler(ENOMEM, kErrorKindErrno, "malloc failed");
    EXPECT_THAT(messages.logs(),
                ElementsAre("DB_ErrHandler: first 1",
                            "DB_ErrHandler: Cannot allocate memory. malloc failed"));
    // The type was still open after the first error, which had none.
    EXPECT_EQ(fetchError(), "2|Standard Library|first 1");
    EXPECT_EQ(fetchError(), "0||");
    // An error without a text leaves the message to the next one.
    DB_ErrHandler(5, kErrorKindApi, "dropped");
    // A "%" of a file name is neither read as a conversion nor vanishes, but for a doubled one.
    DB_ErrHandler(0, 0, "%s", "100%s%n%%d %");
    EXPECT_EQ(fetchError(), "5|WIN32 API|100%s%n%d %");
    // The host's fields are never overrun.
    std::memset(g_sQRTLN_Global.szDBErrorType, 't', sizeof g_sQRTLN_Global.szDBErrorType - 1);
    std::memset(g_sQRTLN_Global.szDBErrorMsg, 'm', sizeof g_sQRTLN_Global.szDBErrorMsg - 1);
    EXPECT_EQ(fetchError(), "0|" + std::string(63, 't') + "|" + std::string(1511, 'm'));
}

TEST(SystemErrorText, FollowsCodeKindAndDescription) {
    const std::string long300(300, 'd');
    const struct {
        unsigned long code;
        int kind;
        const char* description;
        std::string text;
    } cases[] = {
        {0, 1, "x", "x"},
        {12, 4, "x", "Cannot allocate memory. x"},
        {12, 1, nullptr, "Cannot allocate memory."},
        {12, 2, "x", ""},
        {12, 0, "x", " x"},
        {12, 3, "x", ". x"},
        {4, 5, nullptr, "No address is available for the name specified in the server request."},
        {9, 5, "x", ""},
        {0, 0, nullptr, ""},
        {0, 0, long300.c_str(), long300.substr(0, 255)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(syserrtxt(c.code, c.kind, c.description), c.text) << c.code << " " << c.kind;
    }
    errno = ENOENT;
    EXPECT_STREQ(getSysMsg(0), "No such file or directory");
    EXPECT_STREQ(getSysMsg(ENOSPC), "No space left on device");
}

} // namespace
