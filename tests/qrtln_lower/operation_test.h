// What the tests below the entry points share: a record of the operation that is empty before and
// afterwards, what it says, queues as texts, and a folder, for which "@" stands in texts.
#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

class OperationTest : public testing::Test {
  protected:
    ~OperationTest() override {
        DestroyFIFOList(g_sQRTLN_Global.lhNotesFileList);
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global = {};
    }

    static std::string replaced(std::string text, const std::string& from, const std::string& to) {
        for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
            text.replace(at, from.size(), to);
        }
        return text;
    }
    std::string full(const std::string& text) const { return replaced(text, "@", folder.path()); }
    void set(char (&field)[kPathSize], const std::string& text) const {
        copyText(field, full(text).c_str());
    }

    // The text of the pending error, which is cleared; empty when there is none.
    std::string takeErrorText() const {
        TYPE_DB_Error error = {};
        takeError(&error);
        return replaced(error.szDBErrorMsg, folder.path(), "@");
    }
    static long with(const std::string& part, const std::vector<std::string>& messages) {
        return std::count_if(messages.begin(), messages.end(), [&](const std::string& text) {
            return text.find(part) != std::string::npos;
        });
    }
    long logsWith(const std::string& part) const { return with(full(part), messages.logs()); }
    // Whether a trace or a log line has this part.
    bool said(const std::string& part) const {
        return logsWith(part) + with(full(part), messages.traces()) > 0;
    }
    bool logged(const std::string& text) const { return messages.hasLog(full(text)); }

    // What a queue holds is a text here, its names separated by blanks.
    static std::vector<std::string> split(const std::string& text) {
        std::istringstream words(text);
        return {std::istream_iterator<std::string>(words), {}};
    }
    void setQueue(LIST_INFO*& queue, const std::string& names) const {
        DestroyFIFOList(queue);
        queue = CreateFIFOList();
        for (const std::string& name : split(full(names))) {
            pushPath(queue, name.c_str(), DB_BACKUP_FILE_TYPE_DB);
        }
    }
    // Takes everything out of a queue; the kind of each may be wanted as well.
    std::string drain(LIST_INFO* queue, bool inOrder = true, bool withKinds = false) const {
        std::vector<std::string> names;
        char szItem[kPathSize];
        unsigned int uiSize = 0;
        DB_BACKUP_FILE_TYPE kind = DB_BACKUP_FILE_TYPE_DB;
        while (PullFIFOItemLN(queue, szItem, &uiSize, &kind)) {
            names.push_back(replaced(szItem, folder.path(), "@") +
                            (withKinds ? ":" + std::to_string(kind) : ""));
        }
        if (!inOrder) {
            std::sort(names.begin(), names.end());
        }
        std::string text;
        for (const std::string& name : names) {
            text += (text.empty() ? "" : " ") + name;
        }
        return text;
    }

    const TemporaryFolder folder;
    MessageCapture messages;
};
