#include <cerrno>
#include <cstring>

#include "qrt_lotus_notes/syserrtxt.h"
#include "tests/qrtln_lower/operation_test.h"

using testing::ElementsAre;

namespace {

class Messages : public OperationTest {
  protected:
    // The error that the host fetches: code, type and text.
    static std::string fetchError() {
        TYPE_DB_Error error;
        std::memset(&error, 0x7F, sizeof error);
        takeError(&error);
        return std::to_string(error.ulDBErrorCode) + "|" + error.szDBErrorType + "|" +
               error.szDBErrorMsg;
    }
};

TEST_F(Messages, LoseLineEndsAndLevelsAreCutAndHaveBanners) {
    DB_TraceExt("a\nb %d\r\n\n\r", 7);
    DB_TraceExt_ln("as it is\n");
    // The support sources begin a trace with its level.
    trace("%l4 %s", "%l4 argument");
    trace("%ld", 2L);
    trace("%lu4 ", 3UL);
    traceBanner("DB_PrepareItem() %s.", "x");
    DB_LogExt("%s", "\r\n");
    DB_LogExt("%s", std::string(4000, 'x').c_str());
    EXPECT_THAT(messages.traces(),
                ElementsAre("a\nb 7", "as it is\n", "%l4 argument", "2", "34 ",
                            "===================", "DB_PrepareItem() x.", "==================="));
    EXPECT_THAT(messages.logs(), ElementsAre("", std::string(1511, 'x')));
}

TEST_F(Messages, FirstErrorWinsUntilItIsFetchedAndLaterOnesAreOnlyLogged) {
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

TEST_F(Messages, SystemErrorTextFollowsCodeKindAndDescription) {
    EXPECT_STREQ(syserrtxt(ENOMEM, kErrorKindErrno, "x"), "Cannot allocate memory. x");
    EXPECT_STREQ(syserrtxt(ENOMEM, kErrorKindErrno, nullptr), "Cannot allocate memory.");
    EXPECT_STREQ(syserrtxt(12, kErrorKindApi, "x"), "");
    EXPECT_STREQ(syserrtxt(12, kErrorKindNone, "x"), " x");
    EXPECT_STREQ(syserrtxt(4, kErrorKindResolver, nullptr),
                 "No address is available for the name specified in the server request.");
    EXPECT_STREQ(syserrtxt(9, kErrorKindResolver, nullptr), "");
    EXPECT_EQ(syserrtxt(0, kErrorKindNone, std::string(300, 'd').c_str()), std::string(255, 'd'));
    errno = ENOENT;
    EXPECT_STREQ(getSysMsg(0), "No such file or directory");
    EXPECT_STREQ(getSysMsg(ENOSPC), "No space left on device");
}

} // namespace
