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

/* clang-format off */
#define FUNCTIONS(EACH) \
    EACH(InitOperation) EACH(GetItem) EACH(PrepareItem) EACH(SetItem) EACH(ItemFinishStatus) \
    EACH(CloseOperation) EACH(DirItem) EACH(Terminate) EACH(GetInfo) EACH(GetError) \
    EACH(SetTrace) EACH(SetLog)
/* clang-format on */
#define MEMBER(name) __typeof__(&DB_##name) name;
#define FIND(name) module.name = (__typeof__(&DB_##name))symbol(module.library, "DB_" #name);

/* The loaded module: its entry points, as the header declares them. */
typedef struct {
    void* library;
    FUNCTIONS(MEMBER)
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
    module.library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module.library == NULL) {
        fprintf(stderr, "host: %s\n", dlerror());
        exit(1);
    }
    FUNCTIONS(FIND)
    return module;
}

static void check_info(const Module* module) {
    TYPE_DB_Info info;
    memset(&info, 0, sizeof info);
    expect(module->GetInfo(&info) == DB_NUM_I_OK, "DB_GetInfo answers 3000");
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
        (void)module->ItemFinishStatus(DB_ITEM_SUCCESS);
        expect(module->GetItem(directory, original, name) != DB_NUM_I_OK,
               "no item without an operation");
        expect(module->PrepareItem("/nowhere/x.nsf", name) != DB_NUM_I_OK,
               "nothing is prepared without an operation");
        (void)module->SetItem(DB_ITEM_TYPE_FILE, name);
        (void)module->DirItem(&format);
        (void)module->Terminate();
        (void)module->CloseOperation(status);
        (void)module->CloseOperation(none);
        (void)module->GetError(&error);
        expect(module->InitOperation(DB_TYPE_BCK, DB_LEVEL_FULL, variables, NULL) ==
                   DB_NUM_E_FAILED,
               "an operation without DATABASE fails");
        memset(&error, 0, sizeof error);
        expect(module->GetError(&error) == DB_NUM_I_OK && error.szDBErrorMsg[0] != '\0',
               "the failure has a text");
    }
    (void)module->CloseOperation(status);
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
    if (module->InitOperation(backup ? DB_TYPE_BCK : DB_TYPE_RST, DB_LEVEL_FULL, variables, NULL) !=
        DB_NUM_I_OK) {
        TYPE_DB_Error error;
        (void)module->GetError(&error);
        fprintf(stderr, "host: operation %d: %s (%s)\n", number, error.szDBErrorMsg, last_log);
        exit(1);
    }
    if (backup) {
        while (module->GetItem(directory, original, name) == DB_NUM_I_OK) {
            if (strcmp(name, words[2]) == 0)
                expect(module->PrepareItem(name, copy) == DB_NUM_I_OK, "the database is prepared");
            expect(module->ItemFinishStatus(DB_ITEM_SUCCESS) == DB_NUM_I_OK,
                   "the item is finished");
        }
    } else {
        snprintf(name, sizeof name, "%s", words[2]);
        expect(module->SetItem(DB_ITEM_TYPE_FILE, name) == DB_NUM_I_OK, "the file is taken");
        (void)module->ItemFinishStatus(DB_ITEM_FAIL);
    }
    expect(module->CloseOperation(status) == DB_NUM_I_OK, "the operation is closed");
}

/* What has grown since the first tenth, when everything that is made once was made. */
static void measure(const char* path, const char* what, int count, char** words) {
    int descriptors = 0;
    long memory = 0;
    int number;
    Module module;
    if (words != NULL) {
        module = load(path);
        module.SetLog(&keep_log);
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
