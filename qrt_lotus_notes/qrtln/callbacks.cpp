// The client's callbacks and the error record.
#include "qrt_lotus_notes/qrtln/entry_point.h"

QRTLN_EXPORT int DB_SetTrace(TYPE_DB_MessageFunc vpfDB_trace) {
    g_sQRTLN_Global.vpTraceFunc = vpfDB_trace;
    return DB_NUM_I_OK;
}

QRTLN_EXPORT int DB_SetLog(TYPE_DB_MessageFunc vpfDB_log) {
    g_sQRTLN_Global.vpLogFunc = vpfDB_log;
    return DB_NUM_I_OK;
}

QRTLN_EXPORT int DB_GetError(TYPE_DB_Error* spO_DBError) {
    return entry_point::run([&] {
        if (spO_DBError == nullptr) {
            return static_cast<int>(DB_NUM_E_FAILED); // the pending error stays pending
        }
        takeError(spO_DBError);
        return static_cast<int>(DB_NUM_I_OK);
    });
}
