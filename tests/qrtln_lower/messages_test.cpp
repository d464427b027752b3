#include "qrt_lotus_notes/qrtln_u/messages.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/syserrtxt.h"
#include "tests/support/message_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string repeated(std::size_t count, char c) {
    return std::string(count, c);
}

struct Error {
    unsigned long code;
    std::string type, message;
    bool operator==(const Error&) const = default;
};

Error fetchError() {
    TYPE_DB_Error error;
    std::memset(&error, 0x7F, sizeof error);
    takeError(&error);
    return {error.ulDBErrorCode, error.szDBErrorType, error.szDBErrorMsg};
}

class Messages : public testing::Test {
  protected:
    void SetUp() override { fetchError(); }
    void TearDown() override { fetchError(); }
};

TEST_F(Messages, NothingIsCalledWithoutACallback) {
    DB_TraceExt("%s", "x");
    DB_LogExt("%s", "x");
    DB_TraceExt_ln("x");
    trace("%l4 %s", "x");
    traceBanner("%s", "x");
    DB_ErrHandler(0, 0, "recorded all the same");
    EXPECT_EQ(fetchError(), (Error{2, "", "recorded all the same"}));
}

TEST_F(Messages, LineEndsGoAndLongTextsAreCutAt1511Bytes) {
    MessageCapture messages;
    DB_TraceExt("a\nb %d\r\n\n\r", 7);
    DB_LogExt("%s", "\r\n");
    DB_LogExt("%s", repeated(4000, 'x').c_str());
    DB_TraceExt_ln("as it is\n");
    EXPECT_THAT(messages.traces(), ElementsAre("a\nb 7", "as it is\n"));
    EXPECT_THAT(messages.logs(), ElementsAre("", repeated(1511, 'x')));
}

TEST_F(Messages, TraceOfTheSupportSourcesLosesItsLevelAndNothingElse) {
    MessageCapture messages;
    trace("%l4 %s", "text");
    trace("%l0 plain");
    trace("plain %d", 1);
    trace("%ld", 2L);
    trace("%lu4 ", 3UL);
    trace("%s", "%l4 argument");
    EXPECT_THAT(messages.traces(),
                ElementsAre("text", "plain", "plain 1", "2", "34 ", "%l4 argument"));
}

TEST_F(Messages, BannerLinesAreAsLongAsTheMiddleOne) {
    MessageCapture messages;
    traceBanner("DB_PrepareItem() %s.", "x");
    EXPECT_THAT(messages.traces(),
                ElementsAre("===================", "DB_PrepareItem() x.", "==================="));
}

TEST_F(Messages, CallbacksDoNotDisturbErrno) {
    g_sQRTLN_Global.vpTraceFunc = [](const char*) { errno = 1; };
    g_sQRTLN_Global.vpLogFunc = [](const char*) { errno = 2; };
    errno = ENOSPC;
    DB_TraceExt("x");
    trace("x");
    DB_LogExt("x");
    DB_ErrHandler(ENOSPC, kErrorKindErrno, "x");
    EXPECT_EQ(errno, ENOSPC);
    g_sQRTLN_Global.vpTraceFunc = nullptr;
    g_sQRTLN_Global.vpLogFunc = nullptr;
}

TEST_F(Messages, FirstErrorWinsUntilItIsFetchedAndLaterOnesAreOnlyLogged) {
    MessageCapture messages;
    DB_ErrHandler(0, 0, "first %d\r\n", 1);
    DB_ErrHandler(ENOMEM, kErrorKindErrno, "malloc failed");
    EXPECT_THAT(messages.logs(),
                ElementsAre("DB_ErrHandler: first 1",
                            "DB_ErrHandler: Cannot allocate memory. malloc failed"));
    // The type was still open after the first error, which had none.
    EXPECT_EQ(fetchError(), (Error{2, "Standard Library", "first 1"}));
    EXPECT_EQ(fetchError(), (Error{0, "", ""}));
    DB_ErrHandler(ENOMEM, kErrorKindErrno, "malloc failed");
    EXPECT_EQ(fetchError(),
              (Error{ENOMEM, "Standard Library", "Cannot allocate memory. malloc failed"}));
}

TEST_F(Messages, ErrorWithoutATextLeavesTheMessageToTheNextOne) {
    DB_ErrHandler(5, kErrorKindApi, "dropped");
    DB_ErrHandler(0, 0, "kept");
    EXPECT_EQ(fetchError(), (Error{5, "WIN32 API", "kept"}));
}

TEST_F(Messages, HostsFieldsAreNeverOverrun) {
    std::memset(g_sQRTLN_Global.szDBErrorType, 't', sizeof g_sQRTLN_Global.szDBErrorType - 1);
    std::memset(g_sQRTLN_Global.szDBErrorMsg, 'm', sizeof g_sQRTLN_Global.szDBErrorMsg - 1);
    EXPECT_EQ(fetchError(), (Error{0, repeated(63, 't'), repeated(1511, 'm')}));
}

// A "%" of a file name must neither be read as a conversion nor vanish.
TEST_F(Messages, PercentOfAMessageIsTakenAsItStandsButForADoubledOne) {
    MessageCapture messages;
    DB_ErrHandler(0, 0, "%s", "100%s%n%%d %");
    EXPECT_EQ(fetchError(), (Error{2, "", "100%s%n%d %"}));
    EXPECT_THAT(messages.logs(), ElementsAre("DB_ErrHandler: 100%s%n%d %"));
}

struct TextCase {
    unsigned long code;
    int kind;
    const char* description;
    std::string text;
};

TEST(SystemErrorText, FollowsCodeKindAndDescription) {
    const std::string long300(300, 'd');
    const TextCase cases[] = {
        {0, 0, "x", "x"},
        {0, 1, "x", "x"},
        {12, 1, "x", "Cannot allocate memory. x"},
        {12, 4, "x", "Cannot allocate memory. x"},
        {12, 1, nullptr, "Cannot allocate memory."},
        {12, 1, "", "Cannot allocate memory. "},
        {99999, 1, "x", "Unknown error 99999. x"},
        {12, 2, "x", ""},
        {12, 0, "x", " x"},
        {12, 3, "x", ". x"},
        {1, 5, "x", "Host is unknown. x"},
        {2, 5, nullptr, "Local server did not receive a response from an authoritative server."},
        {3, 5, nullptr, "An unexpected server failure occurred."},
        {4, 5, nullptr, "No address is available for the name specified in the server request."},
        {9, 5, "x", ""},
        {0, 0, nullptr, ""},
        {0, 0, long300.c_str(), long300.substr(0, 255)},
    };
    for (const TextCase& expected : cases) {
        EXPECT_EQ(syserrtxt(expected.code, expected.kind, expected.description), expected.text)
            << expected.code << " " << expected.kind;
    }
}

TEST(SystemErrorText, BothTextFunctionsReuseTheirBuffer) {
    char* const first = syserrtxt(0, 0, "a long text");
    EXPECT_EQ(syserrtxt(0, 0, "b"), first);
    EXPECT_STREQ(first, "b");
    errno = ENOENT;
    char* const message = getSysMsg(0);
    EXPECT_STREQ(message, "No such file or directory");
    EXPECT_EQ(getSysMsg(ENOSPC), message);
    EXPECT_STREQ(message, "No space left on device");
}

} // namespace
