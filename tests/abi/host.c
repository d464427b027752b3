/*
 * A small backup client in the common part of C and C++, to be compiled by every compiler that
 * clients are built with. It loads the module as any client does and checks what it promises:
 *
 *   host MODULE order                     calls in a wrong order are answered, never a crash
 *   host MODULE load COUNT                loads and unloads the module
 *   host MODULE operate COUNT INI TMP DB  whole operations in one process
 *
 * The last two print the growth of open descriptors and of resident memory, and fail when there is
 * some. Exit code 0 when all is well.
 */
#include "qrt_lotus_notes/db_interface.h"

#include <dirent.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define PATH_SIZE 1028

typedef int (*InitFunction)(DB_OPERATION_TYPE, DB_OPERATION_LEVEL, char**, sQRT_DB*);
typedef int (*GetItemFunction)(char*, char*, char*);
typedef int (*PrepareFunction)(const char*, char*);
typedef int (*SetItemFunction)(DB_ITEM_TYPE, char*);
typedef int (*FinishFunction)(DB_ITEM_RESULT);
typedef int (*CloseFunction)(char**);
typedef int (*DirItemFunction)(sFormat*);
typedef int (*TerminateFunction)(void);
typedef int (*GetInfoFunction)(TYPE_DB_Info*);
typedef int (*GetErrorFunction)(TYPE_DB_Error*);
typedef int (*SetCallbackFunction)(TYPE_DB_MessageFunc);

typedef struct {
    void* library;
    InitFunction init;
    GetItemFunction get_item;
    PrepareFunction prepare;
    SetItemFunction set_item;
    FinishFunction finish;
    CloseFunction close_operation;
    DirItemFunction dir_item;
    TerminateFunction terminate;
    GetInfoFunction get_info;
    GetErrorFunction get_error;
    SetCallbackFunction set_trace;
    SetCallbackFunction set_log;
} Module;

static int failures = 0;
static char last_log[2048];

static void keep_log(const char* text) {
    snprintf(last_log, sizeof last_log, "%s", text);
}

static void expect(int condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "host: not as promised: %s\n", what);
        ++failures;
    }
}

static void* symbol(void* library, const char* name) {
    void* address = dlsym(library, name);
    if (address == NULL) {
        fprintf(stderr, "host: the module does not export %s\n", name);
        exit(1);
    }
    return address;
}

static Module load(const char* path) {
    Module module;
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "host: %s\n", dlerror());
        exit(1);
    }
    module.library = library;
    module.init = (InitFunction)symbol(library, "DB_InitOperation");
    module.get_item = (GetItemFunction)symbol(library, "DB_GetItem");
    module.prepare = (PrepareFunction)symbol(library, "DB_PrepareItem");
    module.set_item = (SetItemFunction)symbol(library, "DB_SetItem");
    module.finish = (FinishFunction)symbol(library, "DB_ItemFinishStatus");
    module.close_operation = (CloseFunction)symbol(library, "DB_CloseOperation");
    module.dir_item = (DirItemFunction)symbol(library, "DB_DirItem");
    module.terminate = (TerminateFunction)symbol(library, "DB_Terminate");
    module.get_info = (GetInfoFunction)symbol(library, "DB_GetInfo");
    module.get_error = (GetErrorFunction)symbol(library, "DB_GetError");
    module.set_trace = (SetCallbackFunction)symbol(library, "DB_SetTrace");
    module.set_log = (SetCallbackFunction)symbol(library, "DB_SetLog");
    return module;
}

static void check_info(const Module* module) {
    TYPE_DB_Info info;
    memset(&info, 0, sizeof info);
    expect(module->get_info(&info) == DB_NUM_I_OK, "DB_GetInfo answers 3000");
    expect(info.cpDBClient != NULL && info.cpDBVersion != NULL, "DB_GetInfo names the module");
    expect(info.eDBType == DB_FILE_PREPARE, "items are files that are prepared");
}

/* Each entry point without an operation, twice, and an operation that cannot start. */
static void wrong_order(const Module* module) {
    char directory[PATH_SIZE] = "";
    char original[PATH_SIZE] = "";
    char name[PATH_SIZE] = "/nowhere/x.nsf";
    char tmp_dir[] = "TMP_DIR=/nowhere";
    char no_status[] = "STATUS=1";
    char* variables[] = {tmp_dir, NULL};
    char* status[] = {no_status, NULL};
    char* none[] = {NULL};
    sFormat format;
    TYPE_DB_Error error;
    int round;
    memset(&format, 0, sizeof format);
    for (round = 0; round < 2; ++round) {
        (void)module->finish(DB_ITEM_SUCCESS);
        expect(module->get_item(directory, original, name) != DB_NUM_I_OK,
               "no item without an operation");
        expect(module->prepare("/nowhere/x.nsf", name) != DB_NUM_I_OK,
               "nothing is prepared without an operation");
        (void)module->set_item(DB_ITEM_TYPE_FILE, name);
        (void)module->dir_item(&format);
        (void)module->terminate();
        (void)module->close_operation(status);
        (void)module->close_operation(none);
        (void)module->get_error(&error);
        expect(module->init(DB_TYPE_BCK, DB_LEVEL_FULL, variables, NULL) == DB_NUM_E_FAILED,
               "an operation without DATABASE fails");
        memset(&error, 0, sizeof error);
        expect(module->get_error(&error) == DB_NUM_I_OK && error.szDBErrorMsg[0] != '\0',
               "the failure has a text");
    }
    (void)module->close_operation(status);
}

static int open_descriptors(void) {
    int count = 0;
    DIR* folder = opendir("/proc/self/fd");
    if (folder == NULL)
        return -1;
    while (readdir(folder) != NULL)
        ++count;
    closedir(folder);
    return count;
}

static long resident_kib(void) {
    char line[256];
    long kib = -1;
    FILE* status = fopen("/proc/self/status", "r");
    if (status == NULL)
        return -1;
    while (fgets(line, sizeof line, status) != NULL)
        if (sscanf(line, "VmRSS: %ld", &kib) == 1)
            break;
    fclose(status);
    return kib;
}

static void load_and_unload(const char* path) {
    Module module = load(path);
    check_info(&module);
    expect(dlclose(module.library) == 0, "the module can be unloaded");
}

/* A restore in which one database is announced and reported as failed, or a backup in which that
 * one is prepared. Nothing is reported as safely stored. */
static void operate(const Module* module, int number, char** words) {
    char notes_ini[2 * PATH_SIZE];
    char tmp_dir[2 * PATH_SIZE];
    char directory[PATH_SIZE] = "";
    char original[PATH_SIZE] = "";
    char name[PATH_SIZE];
    char copy[PATH_SIZE];
    char failed[] = "STATUS=1";
    char whole_system[] = "DATABASE=NOTES";
    char* variables[] = {notes_ini, tmp_dir, whole_system, NULL};
    char* status[] = {failed, NULL};
    int backup = number % 2 == 0;
    snprintf(notes_ini, sizeof notes_ini, "NOTESINI=%s", words[0]);
    snprintf(tmp_dir, sizeof tmp_dir, "TMP_DIR=%s", words[1]);
    if (module->init(backup ? DB_TYPE_BCK : DB_TYPE_RST, DB_LEVEL_FULL, variables, NULL) !=
        DB_NUM_I_OK) {
        TYPE_DB_Error error;
        (void)module->get_error(&error);
        fprintf(stderr, "host: operation %d: %s (%s)\n", number, error.szDBErrorMsg, last_log);
        exit(1);
    }
    if (backup) {
        while (module->get_item(directory, original, name) == DB_NUM_I_OK) {
            if (strcmp(name, words[2]) == 0)
                expect(module->prepare(name, copy) == DB_NUM_I_OK, "the database is prepared");
            expect(module->finish(DB_ITEM_SUCCESS) == DB_NUM_I_OK, "the item is finished");
        }
    } else {
        snprintf(name, sizeof name, "%s", words[2]);
        expect(module->set_item(DB_ITEM_TYPE_FILE, name) == DB_NUM_I_OK, "the file is taken");
        (void)module->finish(DB_ITEM_FAIL);
    }
    expect(module->close_operation(status) == DB_NUM_I_OK, "the operation is closed");
}

/* What has grown since the first tenth, when everything that is made once was made. */
static void measure(const char* path, const char* what, int count, char** words) {
    int descriptors = 0;
    long memory = 0;
    int number;
    Module module;
    if (words != NULL) {
        module = load(path);
        module.set_log(&keep_log);
    }
    for (number = 0; number < count; ++number) {
        if (number == count / 10) {
            descriptors = open_descriptors();
            memory = resident_kib();
        }
        if (words != NULL)
            operate(&module, number, words);
        else
            load_and_unload(path);
    }
    descriptors = open_descriptors() - descriptors;
    memory = resident_kib() - memory;
    printf("%d %s: %d more descriptors, %ld KiB more memory\n", count, what, descriptors, memory);
    expect(descriptors <= 0, "no descriptor is left open");
    expect(memory <= 512, "memory does not grow");
}

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[2], "order") == 0) {
        Module module = load(argv[1]);
        check_info(&module);
        wrong_order(&module);
    } else if (argc == 4 && strcmp(argv[2], "load") == 0) {
        measure(argv[1], "loads and unloads", atoi(argv[3]), NULL);
    } else if (argc == 7 && strcmp(argv[2], "operate") == 0) {
        measure(argv[1], "operations in one process", atoi(argv[3]), argv + 4);
    } else {
        fprintf(stderr, "usage: host MODULE order | load COUNT | operate COUNT INI TMP DB\n");
        return 2;
    }
    return failures == 0 ? 0 : 1;
}
