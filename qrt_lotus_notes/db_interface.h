/*
 * The module interface: what a backup client includes to drive libqrtln.so.
 *
 * Conventions
 *  1. The client loads the library at run time and calls the twelve DB_ functions below, one at a
 *     time from one thread. DB_Terminate alone may be called while another call is running.
 *  2. Every function returns a status code (DB_NUM_...). None throws, none ends the process but
 *     when memory runs out inside the module's lists.
 *  3. BOOL is a 32-bit int: 0 is false, everything else true. Strings are NUL-terminated byte
 *     strings; paths are native byte strings with "/" as delimiter, at most 1028 bytes with
 *     the NUL.
 *  4. The client owns every buffer that it passes. Texts that the module hands to a callback are
 *     valid only during the call; the strings of DB_GetInfo are static.
 *  5. Control variables are a NULL-terminated array of "NAME=value" strings.
 *  6. The client may export `void resolve_path(char* path)` (C linkage): it replaces a symbolic
 *     directory prefix ("gv_rw_times:", the directory of run-time data) in place, within 1028
 *     bytes. Without it the path stays as it is.
 */
#ifndef QRT_LOTUS_NOTES_DB_INTERFACE_H
#define QRT_LOTUS_NOTES_DB_INTERFACE_H

/*
 * A client may pass any number where an enumeration stands: the module answers those that it does
 * not know. C++ has to be told so; C takes this type anyhow.
 */
#ifdef __cplusplus
#define DB_ANY_NUMBER : unsigned int
extern "C" {
#else
#define DB_ANY_NUMBER
#endif

typedef int BOOL;

/* Status codes. 11 to 14 pass only between the module's own functions. */
enum {
    DB_NUM_I_CIRCULAR_LOG = 11,   /* the server logs circularly: no log to archive */
    DB_NUM_I_NOT_SELECTED = 12,   /* the item is not selected for this restore */
    DB_NUM_E_DB_IN_USE = 13,      /* the database is in use */
    DB_NUM_I_NOTRANSLOGGING = 14, /* the server has no transaction logging */
    DB_NUM_E_FAILED = 1000,       /* the call or the operation failed */
    DB_NUM_E_ITEM_FAILED = 1001,  /* this item failed, the operation may go on */
    DB_NUM_E_TERMINATED = 1009,   /* a copy was stopped by DB_Terminate; never leaves the module */
    DB_NUM_W_WARNING = 2000,      /* prepared with a reservation: the database is not logged */
    DB_NUM_I_OK = 3000,           /* success */
    DB_NUM_I_COMPLETE = 3001      /* nothing more, or nothing to do */
};

typedef enum DB_ANY_NUMBER { DB_TYPE_BCK = 1, DB_TYPE_RST = 2, DB_TYPE_DIR = 3 } DB_OPERATION_TYPE;

typedef enum DB_ANY_NUMBER {
    DB_LEVEL_COPY = 0,
    DB_LEVEL_FULL = 1,
    DB_LEVEL_DIFF = 2,
    DB_LEVEL_INCR = 3,
    DB_LEVEL_SLCT = 4
} DB_OPERATION_LEVEL;

typedef enum DB_ANY_NUMBER {
    DB_ITEM_TYPE_DIRECTORY = 1,
    DB_ITEM_TYPE_FILE = 2,
    DB_ITEM_TYPE_SITE = 3
} DB_ITEM_TYPE;

typedef enum DB_ANY_NUMBER {
    DB_ITEM_SUCCESS = 1,
    DB_ITEM_WARNING = 2,
    DB_ITEM_FAIL = 3,
    DB_ITEM_EXCLUDED = 4
} DB_ITEM_RESULT;

/* How the client is to handle items. */
typedef enum DB_ANY_NUMBER {
    DB_FILE_PREPARE = 0, /* it reads or writes the files, after DB_PrepareItem or DB_SetItem */
    DB_STREAM = 1,
    DB_FILE = 2,
    DB_FILE_STREAM = 3,
    DB_INFO = 4
} DB_TYPE;

/* Filled by DB_GetInfo. */
typedef struct {
    char* cpDBClient;         /* description of the module */
    char* cpDBVersion;        /* version of the module */
    char* cpDBSubVersion;     /* left untouched */
    char* cpDBRelDate;        /* identification of the build */
    DB_TYPE eDBType;          /* DB_FILE_PREPARE */
    BOOL bProvideUnicode;     /* FALSE */
    BOOL bProvideCompression; /* left untouched */
} TYPE_DB_Info;

/* Filled by DB_GetError. */
typedef struct {
    unsigned long ulDBErrorCode; /* 0: no error was pending */
    char szDBErrorType[64];      /* "Standard Library", "WIN32 API" or empty */
    char szDBErrorMsg[2048];
} TYPE_DB_Error;

struct _dictionary_;
struct qrt_relocation_context;

/* The client's parameter record. The module reads szSaveset alone, for a trace line. */
typedef struct {
    char* cpDummyParameter;
    int iLogLevel;
    int iExcludeAll;
    int iEncrypt;
    char szAddArg[1024];
    struct _dictionary_* dictAddArg;
    char szUser[512];
    char szPass[512];
    char szDomain[512];
    char szSaveset[512];
    char szServer[512];
    char szTmpDir[512];
    char szWorkDir[512];
    char szTargetArg[1024];
    char szInterpreter[1024];
    char szSSLThumbPrint[1024];
    char szCookie[1024];
    char szEsxCompress[1024];
    char szMsVersion[512];
    char szSplit[512];
    char szVddkini[512];
    struct qrt_relocation_context* relocCtx;
} sQRT_DB;

/* The client's listing record: what follows the name is the client's business. */
typedef struct {
    char szCurFullFileName[4096];
} sFormat;

/* A callback for one message; the text is valid only during the call. */
typedef void (*TYPE_DB_MessageFunc)(const char* text);

/*
 * Sets the callback for the detailed course of the work, or none with NULL. It stays until it is
 * replaced. Returns 3000.
 */
int DB_SetTrace(TYPE_DB_MessageFunc vpfDB_trace);

/* Sets the callback for the messages of the operation's protocol, likewise. Returns 3000. */
int DB_SetLog(TYPE_DB_MessageFunc vpfDB_log);

/* Fills in the identity of the module. Returns 3000. */
int DB_GetInfo(TYPE_DB_Info* spO_DBInfo);

/*
 * Hands over the first error reported since the last call and clears it. Returns 3000, also when
 * there was none (then the code is 0 and the texts are empty).
 */
int DB_GetError(TYPE_DB_Error* spO_DBError);

/*
 * Opens an operation. Returns 3000; 3001 when the operation is already complete (a recovery runs
 * whole inside this call); 1000 on failure. Control variables: DB_USER, TMP_DIR, RECOVERY,
 * NEWDBIID, ACTIVATE, NOTESINI, SNC_TIME, INFO, DATABASE (at least one); ROLLFORWARD ("YES", or a
 * local time of fourteen digits), without which a recovery selects nothing. pDB_QRT_Params may be
 * NULL. Whatever it returned, DB_CloseOperation must follow.
 */
int DB_InitOperation(DB_OPERATION_TYPE eI_OperationType, DB_OPERATION_LEVEL eI_OperationLevel,
                     char** cppI_CtrlVars, sQRT_DB* pDB_QRT_Params);

/*
 * Writes the full path of the next item to back up into cpFileName (1028 bytes). The two
 * directories are only traced. Returns 3000 with an item, 3001 when there are no more, 1000 on
 * failure.
 */
int DB_GetItem(char* cpBackupDirectory, char* cpOriginalDirectory, char* cpFileName);

/*
 * Makes the item from DB_GetItem ready and writes the path of the file that the client is to read
 * into szNewFile (1028 bytes). Returns 3000; 2000 ready, but the database is not
 * transaction-logged; 1001 this item failed; 1000.
 */
int DB_PrepareItem(const char* szItem, char* szNewFile);

/*
 * Announces a directory or file that the client is about to restore. cpItem (1028 bytes) is
 * rewritten to the path to write to. Returns 3000, or 1000 when the item must not be written.
 */
int DB_SetItem(DB_ITEM_TYPE e_ItemType, char* cpItem);

/*
 * Reports the outcome of the oldest unfinished item. Returns 3000 or 1000; in a document restore
 * the result of that.
 */
int DB_ItemFinishStatus(DB_ITEM_RESULT e_ItemFinishStatus);

/*
 * Ends the operation. The control variable "STATUS=0" says that everything is safely stored: only
 * then logs are marked archived and the index of database instances is replaced. Returns 3000 or
 * the failure of the end of log archiving.
 */
int DB_CloseOperation(char** cppI_CtrlVars);

/* Listing is not supported. Returns 3001. For hosts that ask; no client here does. */
int DB_DirItem(sFormat* cpItem);

/* Asks the running copy to stop; it stops within 32 KiB. Returns 3000. */
int DB_Terminate(void);

#ifdef __cplusplus
}
#endif

#endif
