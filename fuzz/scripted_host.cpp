// A host that calls the entry points in any order with any argument. The input is a script, one
// call a line; behind a line "!" stands the tape from which the server answers (fake_notes.h).
//
//   I<type><level><variables>  DB_InitOperation; variables are divided by "|", "~" alone is NULL
//   G  G~                      DB_GetItem, with NULL
//   P  P<item>  P~  P>         DB_PrepareItem of the item got last, of this one, of NULL; into NULL
//   S<type><item>              DB_SetItem; "~" alone is NULL
//   W                          the host writes the file that it set last
//   F<result>                  DB_ItemFinishStatus
//   B                          get, prepare and finish until there is nothing more
//   C<variables>               DB_CloseOperation
//   T  E  E~  V  V~  D<name>   DB_Terminate, DB_GetError, DB_GetInfo, DB_DirItem
//   t0 t1  l0 l1               trace and log callback: none, one that checks its text
//   X<path>=<content>          another process writes a file below the data directory
//
// Enumerations are the distance of a character from "0". At the end the operation is closed once
// more. State that lives as long as a loaded module lives from input to input as well.
#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <strings.h>
#include <sys/stat.h>

#include "common/bounded_text.h"
#include "fuzz/support/confinement.h"
#include "fuzz/support/fake_notes.h"
#include "fuzz/support/module_checks.h"
#include "fuzz/support/target.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"

extern "C" void resolve_path(char* path) {
    constexpr std::string_view kPrefix = "gv_rw_times:";
    const std::string text = path;
    if (text.starts_with(kPrefix)) {
        copyText(path, kPathSize, (fuzz::folder() + "/run/" + text.substr(kPrefix.size())).c_str());
    }
}

namespace {

using fuzz::require;

constexpr std::string_view kContent = "content";
constexpr std::string_view kIndex = "\n[DBIID]\n/d/a.nsf=00259E3A-C1258A4F 9B2F7A10C1258A4F\n\n";
constexpr std::array kDataFiles = {"names.nsf", "log.ns4",    "mail.box",     "notes.ini",
                                   "user.id",   "mail/a.nsf", "mail/b c.ntf", "noteids_list.txt"};

// The folder as each script finds it.
class Tree {
  public:
    Tree() {
        for (const char* directory : {"data/mail", "log", "run", "tmp", "sibling"}) {
            std::filesystem::create_directories(path(directory));
        }
        for (const char* name : kDataFiles) {
            m_content[path("data/") + name] = kContent;
        }
        m_content[path("data/noteids_list.txt")] = "1\n5\n-5\n17\r\n";
        m_content[path("log/S1.TXN")] = kContent;
        m_content[path("run/qrtln_DBIID.ini")] = kIndex;
        m_content[path("sibling/marker")] = kContent;
    }

    // Brings every file back that is missing or changed, and removes all others.
    void restore() {
        for (const auto& [file, content] : m_content) {
            struct stat status;
            const auto known = m_written.find(file);
            const bool same = known != m_written.end() && stat(file.c_str(), &status) == 0 &&
                              status.st_ino == known->second.st_ino &&
                              status.st_mtim.tv_nsec == known->second.st_mtim.tv_nsec &&
                              status.st_mtim.tv_sec == known->second.st_mtim.tv_sec &&
                              status.st_size == known->second.st_size;
            if (!same) {
                std::error_code ignored;
                if (std::filesystem::is_directory(std::filesystem::symlink_status(file))) {
                    std::filesystem::remove_all(file, ignored);
                }
                std::filesystem::create_directories(std::filesystem::path(file).parent_path());
                fuzz::writeFile(file, content);
                require(stat(file.c_str(), &m_written[file]) == 0, "a file of the tree");
            }
        }
        removeOthers(fuzz::folder());
        for (const char* directory : {"data", "log", "run", "tmp", "sibling"}) {
            std::filesystem::create_directories(path(directory));
        }
    }

    bool isUnchanged(const std::string& file) const {
        const auto known = m_content.find(path("") + file);
        return fuzz::readFile(known->first) == known->second;
    }

    static std::string path(const std::string& name) { return fuzz::folder() + "/" + name; }

  private:
    void removeOthers(const std::string& directory) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            const std::string& name = entry.path().native();
            const auto first = m_content.lower_bound(name);
            if (first != m_content.end() && first->first == name) {
                continue;
            }
            const auto below = m_content.lower_bound(name + "/");
            const bool isAbove = below != m_content.end() && below->first.starts_with(name + "/");
            if (isAbove && entry.is_directory()) {
                removeOthers(name);
            } else if (name != path("tmp") || !std::filesystem::is_empty(name)) {
                std::filesystem::remove_all(name);
            }
        }
    }

    std::map<std::string, std::string> m_content;
    std::map<std::string, struct stat> m_written;
};

// What the host did so far, as far as it decides what is allowed.
struct Course {
    bool isTame = true;        // it named nothing outside the folder
    bool hasSucceeded = false; // it closed with STATUS=0
    bool isBackup = false;
    bool hasOwnTemporary = false; // TMP_DIR is the target's, outside the data directory
    bool isHostWriting = false;
    bool hasWrittenData = false; // by itself, or by a restore
};
Course s_course;

// During a backup the live databases are read alone.
void watchChange(const std::string& path) {
    if (!s_course.isBackup || !s_course.isTame || !s_course.hasOwnTemporary ||
        s_course.isHostWriting) {
        return;
    }
    static const std::string data = fuzz::folder() + "/data/";
    require(!path.starts_with(data), "a backup changes nothing in the data directory");
}

DB_OPERATION_TYPE typeOf(char c) {
    return static_cast<DB_OPERATION_TYPE>(c - '0');
}

// An array of control variables as a host hands it over.
class Variables {
  public:
    explicit Variables(std::string_view text) : m_isNull(text == "~") {
        for (const std::string_view variable : fuzz::split(text, '|')) {
            m_texts.push_back(fuzz::expanded(variable));
            s_course.isTame = s_course.isTame && fuzz::isTame(m_texts.back()) &&
                              fuzz::isTame(valueOf(m_texts.back()));
        }
        for (std::string& variable : m_texts) {
            m_array.push_back(variable.data());
        }
        m_array.push_back(nullptr);
    }
    char** get() { return m_isNull ? nullptr : m_array.data(); }

    // The value of the last variable of that name.
    std::string value(std::string_view name) const {
        std::string result;
        for (const std::string& variable : m_texts) {
            if (variable.starts_with(name)) {
                result = variable.substr(std::min(variable.size(), name.size() + 1));
            }
        }
        return m_isNull ? "" : result;
    }
    bool has(std::string_view variable) const {
        return !m_isNull && std::find(m_texts.begin(), m_texts.end(), variable) != m_texts.end();
    }

  private:
    // The directory that it names: in any case, behind any one character.
    static std::string_view valueOf(std::string_view variable) {
        constexpr std::string_view name = "TMP_DIR";
        const bool isNamed = variable.size() > name.size() &&
                             strncasecmp(variable.data(), name.data(), name.size()) == 0;
        return isNamed ? variable.substr(name.size() + 1) : std::string_view();
    }

    bool m_isNull;
    std::vector<std::string> m_texts;
    std::vector<char*> m_array;
};

// A buffer of the host: a byte more than is written behind its end shows at once.
class Buffer {
  public:
    explicit Buffer(const std::string& text) : m_bytes(new char[kPathSize]) {
        std::memset(m_bytes.get(), 'x', kPathSize);
        copyText(m_bytes.get(), kPathSize, text.c_str());
    }
    char* get() { return m_bytes.get(); }
    std::string text() const {
        require(std::memchr(m_bytes.get(), '\0', kPathSize) != nullptr,
                "a path of the module ends");
        return m_bytes.get();
    }

  private:
    std::unique_ptr<char[]> m_bytes;
};

class Host {
  public:
    void call(std::string_view line) {
        if (line.empty()) {
            return;
        }
        const std::string_view rest = line.substr(1);
        switch (line[0]) {
        case 'I':
            initialise(rest);
            break;
        case 'G':
            get(rest == "~");
            break;
        case 'P':
            prepare(rest);
            break;
        case 'S':
            set(rest);
            break;
        case 'W':
            writeItem();
            break;
        case 'F':
            finish(rest.empty() ? '1' : rest[0]);
            break;
        case 'B':
            for (int i = 0; i < 40 && get(false); ++i) {
                prepare("");
                finish('1');
            }
            break;
        case 'C':
            close(rest);
            break;
        case 'X':
            writeData(rest);
            break;
        default:
            callSimple(line[0], rest);
            break;
        }
        fuzz::checkRecord();
    }

    static void close(std::string_view text) {
        Variables variables(text);
        const bool succeeds = isSuccess(variables);
        const int archived = fuzz::archivedLogs();
        s_course.hasSucceeded = s_course.hasSucceeded || succeeds;
        const int result = DB_CloseOperation(variables.get());
        require(result == DB_NUM_I_OK || result == DB_NUM_E_FAILED, "a close: 3000 or 1000");
        require(succeeds || fuzz::archivedLogs() == archived,
                "without STATUS=0 no log is marked as archived");
        require(g_sQRTLN_Global.lhNotesFileList == nullptr &&
                    g_sQRTLN_Global.lhArgumentFileList == nullptr &&
                    g_sQRTLN_Global.LL_CurrentItemList == nullptr &&
                    g_sQRTLN_Global.LL_ArchivedLogList == nullptr &&
                    g_sQRTLN_Global.bNotesInitialized == FALSE && g_sQRTLN_Global.hCurrDB == 0,
                "a close leaves no list and no runtime");
        s_course.isBackup = false;
    }

  private:
    static bool isSuccess(const Variables& variables) {
        // Any case and any separator count, so each is looked for.
        for (const char* name : {"STATUS=0", "status=0", "Status=0", "STATUS:0"}) {
            if (variables.has(name)) {
                return true;
            }
        }
        return !variables.value("S").empty() || !variables.value("s").empty();
    }

    static void initialise(std::string_view text) {
        if (text.size() < 2) {
            return;
        }
        Variables variables(text.substr(2));
        const std::string temporary = variables.value("TMP_DIR");
        s_course.hasOwnTemporary = temporary.starts_with(Tree::path("tmp"));
        s_course.isBackup = typeOf(text[0]) == DB_TYPE_BCK;
        static sQRT_DB parameters;
        std::memset(parameters.szSaveset, 's', sizeof parameters.szSaveset);
        const int result =
            DB_InitOperation(typeOf(text[0]), static_cast<DB_OPERATION_LEVEL>(text[1] - '0'),
                             variables.get(), text.size() % 2 == 0 ? nullptr : &parameters);
        require(result == DB_NUM_I_OK || result == DB_NUM_I_COMPLETE || result == DB_NUM_E_FAILED,
                "an operation starts: 3000, 3001 or 1000");
        require(result != DB_NUM_I_OK || g_sQRTLN_Global.bNotesInitialized != FALSE,
                "an operation that has started has a runtime");
    }

    bool get(bool bNull) {
        Buffer item("");
        const int result = DB_GetItem(nullptr, item.get(), bNull ? nullptr : item.get());
        require(result == DB_NUM_I_OK || result == DB_NUM_I_COMPLETE || result == DB_NUM_E_FAILED,
                "an item: 3000, 3001 or 1000");
        if (result == DB_NUM_I_OK) {
            m_item = item.text(); // empty for a log that the server names so
        }
        return result == DB_NUM_I_OK;
    }

    void prepare(std::string_view text) {
        Buffer file("");
        const std::string item = text.empty() || text == ">" ? m_item : fuzz::expanded(text);
        s_course.isTame = s_course.isTame && fuzz::isTame(item);
        const int result = DB_PrepareItem(text == "~" ? nullptr : item.c_str(),
                                          text == ">" ? nullptr : file.get());
        require(result == DB_NUM_I_OK || result == DB_NUM_W_WARNING ||
                    result == DB_NUM_E_ITEM_FAILED || result == DB_NUM_E_FAILED,
                "a preparation: 3000, 2000, 1001 or 1000");
        file.text();
    }

    void set(std::string_view text) {
        if (text.empty()) {
            return;
        }
        const std::string name = fuzz::expanded(text.substr(1));
        s_course.isTame = s_course.isTame && fuzz::isTame(name);
        Buffer item(name);
        const int result = DB_SetItem(static_cast<DB_ITEM_TYPE>(text[0] - '0'),
                                      text.substr(1) == "~" ? nullptr : item.get());
        require(result == DB_NUM_I_OK || result == DB_NUM_E_FAILED, "an item is set: 3000 or 1000");
        m_target = item.text();
        if (s_course.isTame && result == DB_NUM_I_OK && g_sQRTLN_Global.szTmpDir[0] != '\0') {
            require(m_target.find("..") == std::string::npos, "a target leads nowhere else");
        }
    }

    void writeItem() const {
        if (m_target.size() > 1 && m_target[0] == '/' && fuzz::isInside(m_target) &&
            fuzz::isTame(m_target) && !m_target.starts_with(Tree::path("sibling"))) {
            writeBelow(m_target);
        }
    }

    static void writeData(std::string_view text) {
        const std::string name = fuzz::expanded(text.substr(0, text.find('=')));
        if (!name.empty() && fuzz::isTame(name)) {
            writeBelow(Tree::path("data/") + name);
        }
    }

    static void writeBelow(const std::filesystem::path& path) {
        std::error_code error;
        std::filesystem::create_directories(path.parent_path(), error);
        const bool isFree = path.native().size() < 2000 && !path.filename().empty() &&
                            !std::filesystem::is_directory(path, error) && !error;
        if (isFree && path.filename().native().size() < 255 &&
            std::filesystem::is_directory(path.parent_path(), error)) {
            s_course.isHostWriting = true; // its own changes are none of the module's
            fuzz::writeFile(path, kContent);
            s_course.isHostWriting = false;
        }
    }

    static void finish(char result) {
        const int status = DB_ItemFinishStatus(static_cast<DB_ITEM_RESULT>(result - '0'));
        require(status == DB_NUM_I_OK || status == DB_NUM_E_FAILED, "a finish: 3000 or 1000");
    }

    static void callSimple(char function, std::string_view rest) {
        switch (function) {
        case 'T':
            require(DB_Terminate() == DB_NUM_I_OK, "DB_Terminate: 3000");
            break;
        case 'E': {
            TYPE_DB_Error error{};
            const int result = DB_GetError(rest == "~" ? nullptr : &error);
            require(result == (rest == "~" ? DB_NUM_E_FAILED : DB_NUM_I_OK), "DB_GetError");
            require(std::memchr(error.szDBErrorMsg, '\0', sizeof error.szDBErrorMsg) != nullptr &&
                        std::memchr(error.szDBErrorType, '\0', sizeof error.szDBErrorType) !=
                            nullptr,
                    "the texts of an error end");
            break;
        }
        case 'V': {
            TYPE_DB_Info info{};
            const int result = DB_GetInfo(rest == "~" ? nullptr : &info);
            require(result == (rest == "~" ? DB_NUM_E_FAILED : DB_NUM_I_OK), "DB_GetInfo");
            break;
        }
        case 'D': {
            const auto item = std::make_unique<sFormat>();
            copyText(item->szCurFullFileName, fuzz::expanded(rest).c_str());
            require(DB_DirItem(rest == "~" ? nullptr : item.get()) == DB_NUM_I_COMPLETE,
                    "DB_DirItem: 3001");
            break;
        }
        case 't':
            DB_SetTrace(rest == "0" ? nullptr : &fuzz::checkMessage);
            break;
        case 'l':
            DB_SetLog(rest == "0" ? nullptr : &fuzz::checkMessage);
            break;
        default:
            break;
        }
    }

    std::string m_item;   // got last
    std::string m_target; // where the file set last is to be written
};

void checkEnd(const Tree& tree) {
    const fuzz::HeldResources held = fuzz::heldResources();
    require(held.databases == 0, "no database stays open");
    require(held.backups == 0, "no backup stays open");
    require(held.applies == 0, "no application of changes stays open");
    require(held.tables == 0, "no table stays");
    require(held.memory == 0, "no memory of the server stays");
    if (s_course.isTame) {
        require(!fuzz::refusedChange(), "nothing outside the folder is changed");
        require(tree.isUnchanged("sibling/marker"), "nothing beside the folders in use is changed");
        require(s_course.hasSucceeded || tree.isUnchanged("run/qrtln_DBIID.ini"),
                "without STATUS=0 the index stays");
    }
}

} // namespace

void fuzz::runInput(std::string_view input) {
    static Tree tree;
    static bool bInstalled = false;
    if (!bInstalled) {
        installFakeNotes();
        observeChanges(&watchChange);
        bInstalled = true;
    }
    tree.restore();
    s_course = Course{};
    clearRecord();
    iCounter = 0;
    const std::size_t end = input.find("\n!\n");
    startFakeServer(end == std::string_view::npos ? "" : input.substr(end + 3));

    Host host;
    const std::vector<std::string_view> calls = split(input.substr(0, end), '\n');
    for (std::size_t i = 0; i < calls.size() && i < 64; ++i) {
        host.call(calls[i]);
    }
    Host::close("~");
    checkEnd(tree);
    // An index that stays in memory, and a stream that stays open when the target of a copy cannot
    // be opened, are contracts.
    releaseDBIIDIndex();
    closeLeftStreams();
    releaseHeldResources();
}
