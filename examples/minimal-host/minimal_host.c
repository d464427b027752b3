/*
 * The least that a backup client has to do: a copy of every database and configuration file of a
 * server in a new folder, each at its whole path. No log is archived, the server stays as it is.
 *
 *   minimal-host NOTES.INI FOLDER      as the user of the server; one operation a process
 *
 * Exit code 0: everything is in FOLDER and on disk; 1: not so, and why; 2: wrong usage.
 */
#define _GNU_SOURCE /* syncfs */
#include <qrt_lotus_notes/db_interface.h>

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

enum { PATH_SIZE = 1028 }; /* of every path that the module writes */
static const char* folder; /* what is written to */
static char tmp_dir[] = "TMP_DIR=/var/tmp/minimal-host-XXXXXX";
static char* const copies = tmp_dir + sizeof "TMP_DIR=" - 1; /* where databases are copied to */
static int failures = 0;

static void failed(const char* what, const char* why) {
    fprintf(stderr, "minimal-host: %s: %s\n", what, why);
    ++failures;
}

static void module_failed(const char* what) {
    TYPE_DB_Error error = {0};
    (void)DB_GetError(&error); /* the first one since it was last asked */
    failed(what, error.ulDBErrorCode != 0 ? error.szDBErrorMsg : "the module gives no reason");
}

/* Some items never reach a client: the module says so here alone, and each has failed. */
static void on_log(const char* text) {
    static const char* const passed_over[] = {"is longer than", "is too long", "cannot be read",
                                              "could not be read to its end",
                                              "NSFBackupEndApplyChangeInfo LN C API call failed"};
    fprintf(stderr, "module: %s\n", text);
    for (size_t i = 0; i < sizeof passed_over / sizeof *passed_over; ++i)
        if (strstr(text, passed_over[i]) != NULL)
            ++failures;
}

/* Where its data lie that outlive a run, which the module asks of the program that loads it. */
void resolve_path(char* path) {
    static const char symbol[] = "gv_rw_times:";
    const size_t length = sizeof symbol - 1;
    char resolved[PATH_SIZE];
    if (strncmp(path, symbol, length) == 0 &&
        snprintf(resolved, PATH_SIZE, "%s/%s", folder, path + length) < PATH_SIZE)
        memcpy(path, resolved, sizeof resolved);
}

static int make_folders_of(char* path) {
    int error = 0;
    for (char* end = path; error == 0 && (end = strchr(end + 1, '/')) != NULL; *end = '/') {
        *end = '\0';
        error = mkdir(path, 0700) != 0 && errno != EEXIST ? errno : 0;
    }
    return error;
}

/* Returns 0, or an error number. */
static int copy_file(const char* source, const char* item) {
    char target[2 * PATH_SIZE];
    snprintf(target, sizeof target, "%s%s", folder, item);
    int error = make_folders_of(target);
    int from = error != 0 ? -1 : open(source, O_RDONLY | O_CLOEXEC);
    int to = from < 0 ? -1 : open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    error = to < 0 && error == 0 ? errno : error;
    for (ssize_t sent = 1; error == 0 && sent > 0;)
        if ((sent = sendfile(to, from, NULL, 1 << 20)) < 0)
            error = errno;
    if (to >= 0 && close(to) != 0 && error == 0)
        error = errno;
    if (from >= 0)
        close(from);
    return error;
}

/* `copy` becomes what the module prepared. */
static DB_ITEM_RESULT save_item(const char* item, char* copy) {
    struct stat status;
    const char* name = strrchr(item, '/');
    int is_there = stat(item, &status) == 0;
    if (is_there && S_ISDIR(status.st_mode))
        return DB_ITEM_SUCCESS;
    if (!is_there && errno == ENOENT && name != NULL && strcmp(name, "/notes.ini") == 0)
        return DB_ITEM_EXCLUDED; /* it is named also where the one in use lies elsewhere */
    int answer = DB_PrepareItem(item, copy);
    if (answer != DB_NUM_I_OK && answer != DB_NUM_W_WARNING) {
        module_failed(item);
        return DB_ITEM_FAIL;
    }
    int error = copy_file(copy, item);
    if (error != 0)
        failed(item, strerror(error));
    return error == 0 ? DB_ITEM_SUCCESS : DB_ITEM_FAIL;
}

static void back_up(char* notes_ini) {
    char item[PATH_SIZE], copy[PATH_SIZE] = "", data[PATH_SIZE] = "", original[PATH_SIZE] = "";
    char* variables[] = {notes_ini, tmp_dir, "DATABASE=NOTES", NULL};
    DB_SetLog(&on_log);
    int answer = DB_InitOperation(DB_TYPE_BCK, DB_LEVEL_COPY, variables, NULL);
    while (answer == DB_NUM_I_OK && (answer = DB_GetItem(data, original, item)) == DB_NUM_I_OK) {
        if (DB_ItemFinishStatus(save_item(item, copy)) != DB_NUM_I_OK) /* each before the next */
            module_failed(item);
        if (strncmp(copy, copies, strlen(copies)) == 0)
            (void)unlink(copy); /* some are left to the client */
    }
    if (answer != DB_NUM_I_COMPLETE)
        module_failed("the backup ended early");
    int disk = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (disk < 0 || syncfs(disk) != 0) /* before the module hears of success */
        failed(folder, strerror(errno));
    char* status[] = {failures == 0 ? "STATUS=0" : "STATUS=1", NULL};
    if (DB_CloseOperation(status) != DB_NUM_I_OK) /* whatever DB_InitOperation answered */
        module_failed("the backup could not be closed");
}

static int remove_entry(const char* path, const struct stat* status, int type, struct FTW* place) {
    return (void)status, (void)type, (void)place, remove(path);
}

int main(int argc, char** argv) {
    char notes_ini[PATH_SIZE + 16];
    if (argc != 3 || argv[2][0] != '/' || strlen(argv[1]) + strlen(argv[2]) >= PATH_SIZE) {
        fprintf(stderr, "usage: minimal-host NOTES.INI FOLDER    (FOLDER: new, its full path)\n");
        return 2;
    }
    folder = argv[2];
    if (mkdir(folder, 0700) != 0 || mkdtemp(copies) == NULL) {
        fprintf(stderr, "minimal-host: %s, and a folder in /var/tmp: %s\n", folder,
                strerror(errno));
        return 1;
    }
    snprintf(notes_ini, sizeof notes_ini, "NOTESINI=%s", argv[1]);
    back_up(notes_ini);
    if (nftw(copies, remove_entry, 8, FTW_DEPTH | FTW_PHYS) != 0)
        failed(copies, strerror(errno));
    return failures == 0 ? 0 : 1;
}
