// What the tests of the Notes floor share: a clean record of the operation with the runtime up,
// captured messages, a scripted Notes C API and a folder.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "tests/qrtln_n/scripted_notes_api.h"
#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

class NotesFloorTest : public testing::Test {
  protected:
    NotesFloorTest() {
        // The callbacks of `messages` outlive the reset.
        const auto traceFunction = g_sQRTLN_Global.vpTraceFunc;
        const auto logFunction = g_sQRTLN_Global.vpLogFunc;
        g_sQRTLN_Global = {};
        g_sQRTLN_Global.vpTraceFunc = traceFunction;
        g_sQRTLN_Global.vpLogFunc = logFunction;
        g_sQRTLN_Global.bNotesInitialized = TRUE;
    }

    // The text of the pending error, which is cleared; empty when there is none.
    static std::string takeErrorText() {
        TYPE_DB_Error error = {};
        takeError(&error);
        return error.szDBErrorMsg;
    }

    TemporaryFolder folder;
    MessageCapture messages;
    ScriptedNotesApi script;
};
