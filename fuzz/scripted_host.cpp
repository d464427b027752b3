// A host that calls the entry points in any order with any argument. The input is a script, one
// call a line; behind a line "!" stands the tape from which the server answers (taped_notes.h).
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
#include <cstring>
#include <memory>
#include <strings.h>

#include "common/bounded_text.h"
#include "fuzz/support.h"
#include "fuzz/taped_notes.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"

namespace {

using fuzz::expanded;
using fuzz::require;

constexpr char kContent[] = "content";
constexpr char kIndex[] = "\n[DBIID]\n/d/a.nsf=00259E3A-C1258A4F 9B2F7A10C1258A4F\n\n";

// Makes the folder as each script finds it.
void makeTree() {
    for (const auto& entry : std::filesystem::directory_iterator(fuzz::folder())) {
        std::filesystem::remove_all(entry);
    }
    fuzz::files().makeDirectory("tmp");
    for (const char* name :
         {"data/names.nsf", "data/log.ns4", "data/mail.box", "data/notes.ini", "data/user.id",
          "data/mail/a.nsf", "data/mail/b c.ntf", "log/S1.TXN", "sibling/marker"}) {
        fuzz::files().write(name, kContent);
    }
    fuzz::files().write("data/noteids_list.txt", "1\n5\n-5\n17\r\n");
    fuzz::files().write("run/qrtln_DBIID.ini", kIndex);
}

// A buffer of the host: a byte more than is written behind its end shows at once.
std::vector<char> bufferOf(const std::string& text) {
    std::vector<char> buffer(kPathSize, 'x');
    copyText(buffer.data(), kPathSize, text.c_str());
    return buffer;
}

std::string textOf(const std::vector<char>& buffer) {
    require(std::memchr(buffer.data(), '\0', buffer.size()) != nullptr,
            "a path of the module ends");
    return buffer.data();
}

void requireOneOf(int result, std::initializer_list<int> allowed, const char* function) {
    require(std::count(allowed.begin(), allowed.end(), result) == 1, function);
}

class Host {
  public:
    explicit Host(std::string_view tape) : m_server(tape) {
        // During a backup the live databases are read alone.
        fuzz::onChange = [this](const std::string& path) {
            require(!(m_isBackup && m_isTame && m_hasOwnTemporary &&
                      path.starts_with(fuzz::files().file("data/"))),
                    "a backup changes nothing in the data directory");
        };
    }
    ~Host() { fuzz::onChange = nullptr; }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void call(std::string_view line) {
        const std::string_view rest = line.substr(1);
        const bool isNull = rest == "~";
        const int good = isNull ? DB_NUM_E_FAILED : DB_NUM_I_OK; // of what only fills a record
        switch (line[0]) {
        case 'I':
            return initialise(rest);
        case 'G':
            return static_cast<void>(get(isNull));
        case 'P':
            return prepare(rest);
        case 'S':
            return set(rest);
        case 'W':
            return writeTarget();
        case 'X':
            return writeData(expanded(rest.substr(0, rest.find('='))));
        case 'F':
            return finish(rest.empty() ? '1' : rest[0]);
        case 'B':
            for (int i = 0; i < 40 && get(false); ++i) {
                prepare("");
                finish('1');
            }
            return;
        case 'C':
            return close(rest);
        case 'T':
            return requireOneOf(DB_Terminate(), {DB_NUM_I_OK}, "DB_Terminate");
        case 'E': {
            TYPE_DB_Error error{};
            requireOneOf(DB_GetError(isNull ? nullptr : &error), {good}, "DB_GetError");
            return require(fuzz::areTerminated(error.szDBErrorMsg, error.szDBErrorType),
                           "the texts of an error end");
        }
        case 'V': {
            TYPE_DB_Info info{};
            return requireOneOf(DB_GetInfo(isNull ? nullptr : &info), {good}, "DB_GetInfo");
        }
        case 'D': {
            const auto item = std::make_unique<sFormat>();
            copyText(item->szCurFullFileName, expanded(rest).c_str());
            return requireOneOf(DB_DirItem(isNull ? nullptr : item.get()), {DB_NUM_I_COMPLETE},
                                "DB_DirItem");
        }
        case 't':
            return static_cast<void>(DB_SetTrace(rest == "0" ? nullptr : &fuzz::checkMessage));
        case 'l':
            return static_cast<void>(DB_SetLog(rest == "0" ? nullptr : &fuzz::checkMessage));
        default:
            return;
        }
    }

    void close(std::string_view text) {
        fuzz::Variables variables(fuzz::split(text, '|'));
        bool succeeds = false;
        for (const std::string& variable : variables.texts) {
            take(variable);
            succeeds = succeeds || variable.starts_with('S') || variable.starts_with('s');
        }
        m_hasSucceeded = m_hasSucceeded || succeeds;
        const int archived = m_server.archivedLogs();
        requireOneOf(DB_CloseOperation(text == "~" ? nullptr : variables.array.data()),
                     {DB_NUM_I_OK, DB_NUM_E_FAILED}, "DB_CloseOperation");
        require(succeeds || m_server.archivedLogs() == archived,
                "without STATUS=0 no log is marked as archived");
        const QRTLN_Global& global = g_sQRTLN_Global;
        require(global.lhNotesFileList == nullptr && global.lhArgumentFileList == nullptr &&
                    global.LL_CurrentItemList == nullptr && global.LL_ArchivedLogList == nullptr &&
                    global.bNotesInitialized == FALSE && global.hCurrDB == 0,
                "a close leaves no list and no runtime");
        m_isBackup = false;
    }

    void checkEnd() const {
        require(m_server.holdsNothing(), "nothing stays open on the server");
        if (m_isTame) {
            require(!fuzz::refusedChange(), "nothing outside the folder is changed");
            require(fuzz::files().read("sibling/marker") == kContent,
                    "nothing beside the folders in use is changed");
            require(m_hasSucceeded || fuzz::files().read("run/qrtln_DBIID.ini") == kIndex,
                    "without STATUS=0 the index stays");
        }
    }

  private:
    void take(const std::string& text) { m_isTame = m_isTame && fuzz::isTame(text); }

    void initialise(std::string_view text) {
        if (text.size() < 2) {
            return;
        }
        fuzz::Variables variables(fuzz::split(text.substr(2), '|'));
        m_hasOwnTemporary = false;
        for (const std::string& variable : variables.texts) {
            take(variable);
            // The directory that it names, in any case, behind any one character.
            if (strncasecmp(variable.c_str(), "TMP_DIR", 7) == 0) {
                const std::string directory =
                    variable.substr(std::min<std::size_t>(8, variable.size()));
                take(directory);
                m_hasOwnTemporary =
                    variable.starts_with('T') && directory.starts_with(fuzz::files().file("tmp"));
            }
        }
        m_isBackup = text[0] - '0' == DB_TYPE_BCK;
        static sQRT_DB parameters;
        std::memset(parameters.szSaveset, 's', sizeof parameters.szSaveset);
        const int result =
            DB_InitOperation(static_cast<DB_OPERATION_TYPE>(text[0] - '0'),
                             static_cast<DB_OPERATION_LEVEL>(text[1] - '0'),
                             text.substr(2) == "~" ? nullptr : variables.array.data(),
                             text.size() % 2 == 0 ? nullptr : &parameters);
        requireOneOf(result, {DB_NUM_I_OK, DB_NUM_I_COMPLETE, DB_NUM_E_FAILED}, "DB_InitOperation");
        require(result != DB_NUM_I_OK || g_sQRTLN_Global.bNotesInitialized != FALSE,
                "an operation that has started has a runtime");
    }

    bool get(bool isNull) {
        std::vector<char> item = bufferOf("");
        const int result = DB_GetItem(nullptr, item.data(), isNull ? nullptr : item.data());
        requireOneOf(result, {DB_NUM_I_OK, DB_NUM_I_COMPLETE, DB_NUM_E_FAILED}, "DB_GetItem");
        if (result == DB_NUM_I_OK) {
            m_item = textOf(item); // empty for a log that the server names so
        }
        return result == DB_NUM_I_OK;
    }

    void prepare(std::string_view text) {
        std::vector<char> file = bufferOf("");
        const std::string item = text.empty() || text == ">" ? m_item : expanded(text);
        take(item);
        requireOneOf(DB_PrepareItem(text == "~" ? nullptr : item.c_str(),
                                    text == ">" ? nullptr : file.data()),
                     {DB_NUM_I_OK, DB_NUM_W_WARNING, DB_NUM_E_ITEM_FAILED, DB_NUM_E_FAILED},
                     "DB_PrepareItem");
        textOf(file);
    }

    void set(std::string_view text) {
        if (text.empty()) {
            return;
        }
        const std::string name = expanded(text.substr(1));
        take(name);
        std::vector<char> item = bufferOf(name);
        const int result = DB_SetItem(static_cast<DB_ITEM_TYPE>(text[0] - '0'),
                                      text.substr(1) == "~" ? nullptr : item.data());
        requireOneOf(result, {DB_NUM_I_OK, DB_NUM_E_FAILED}, "DB_SetItem");
        m_target = textOf(item);
        if (m_isTame && result == DB_NUM_I_OK && g_sQRTLN_Global.szTmpDir[0] != '\0') {
            require(m_target.find("..") == std::string::npos, "a target leads nowhere else");
        }
    }

    // As other processes do: these changes are none of the module's.
    void writeTarget() const {
        if (m_target.starts_with('/') && fuzz::isInside(m_target) && fuzz::isTame(m_target) &&
            !m_target.starts_with(fuzz::files().file("sibling"))) {
            write(m_target);
        }
    }
    static void writeData(const std::string& name) {
        if (fuzz::isTame(name)) {
            write(fuzz::files().file("data/" + name));
        }
    }
    static void write(const std::filesystem::path& path) {
        std::error_code error;
        std::filesystem::create_directories(path.parent_path(), error);
        std::ofstream(path) << kContent;
    }

    static void finish(char result) {
        requireOneOf(DB_ItemFinishStatus(static_cast<DB_ITEM_RESULT>(result - '0')),
                     {DB_NUM_I_OK, DB_NUM_E_FAILED}, "DB_ItemFinishStatus");
    }

    fuzz::TapedNotes m_server;
    std::string m_item;   // got last
    std::string m_target; // where the file set last is to be written
    // What the host did so far, as far as it decides what is allowed.
    bool m_isTame = true;        // it named nothing outside the folder
    bool m_hasSucceeded = false; // it closed with STATUS=0
    bool m_isBackup = false;
    bool m_hasOwnTemporary = false; // TMP_DIR is the target's, outside the data directory
};

} // namespace

void fuzz::runInput(std::string_view input) {
    makeTree();
    clearRecord();
    iCounter = 0;
    const std::size_t end = input.find("\n!\n");
    Host host(end == std::string_view::npos ? "" : input.substr(end + 3));
    const std::vector<std::string_view> calls = split(input.substr(0, end), '\n');
    for (std::size_t i = 0; i < calls.size() && i < 64; ++i) {
        if (!calls[i].empty()) {
            host.call(calls[i]);
            checkRecord();
        }
    }
    host.close("~");
    host.checkEnd();
    // An index that stays in memory, and a stream that stays open when the target of a copy cannot
    // be opened, are contracts.
    releaseDBIIDIndex();
    closeLeftStreams();
}
