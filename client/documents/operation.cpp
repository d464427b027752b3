#include "client/documents/operation.h"

#include "client/documents/copies.h"
#include "client/documents/live_restore.h"
#include "client/documents/module_run.h"
#include "client/documents/search.h"
#include "client/documents/trials.h"

#include <cerrno>
#include <sys/stat.h>
#include <utility>

namespace qrtln {

namespace {

// What the steps of a restore and of a search have in common.
struct DocumentOperation {
    DocumentOperation(const OperationContext& context, const DocumentRequest& request)
        : item(request.item), kind(request.kind), copies(context, request.item),
          module(context, request, copies, result), trials(request, copies, module, result) {}

    // Everything before the live database is touched or asked.
    void begin(std::uint64_t room) {
        if (kind == DocumentKind::changed)
            module.require_no_list();
        copies.make(room);
        copies.extract();
        trials.check_moment();
    }

    const ManifestItem& item;
    const DocumentKind kind;
    DocumentsResult result;
    DocumentCopies copies;
    DocumentModule module;
    DocumentTrials trials;
};

} // namespace

DocumentsResult restore_documents(const OperationContext& context, const DocumentRequest& request) {
    DocumentOperation operation(context, request);
    operation.begin(2 * request.item.size); // the set's copy, and the copy that it is tried in
    LiveRestore live(request, operation.module, operation.trials, operation.result);
    request.kind == DocumentKind::changed ? live.restore_changed() : live.restore_deleted();
    return std::move(operation.result);
}

DocumentsResult find_documents(const OperationContext& context, OwedDatabases& owed,
                               const DocumentRequest& request) {
    struct stat live {};
    if (::stat(request.item.path.c_str(), &live) != 0)
        fail_file("look at", request.item.path, errno);
    DocumentOperation operation(context, request);
    // Each once as it is, and once to be worked on.
    operation.begin(2 * (request.item.size + static_cast<std::uint64_t>(live.st_size)));
    DocumentSearch search(context, request, operation.copies, operation.module, operation.trials,
                          operation.result);
    search.take_live_copy(owed);
    search.find();
    return std::move(operation.result);
}

} // namespace qrtln
