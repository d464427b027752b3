#include "client/restore/open_store.h"

#include "client/base/error.h"
#include "client/sets/server_runtime.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace qrtln {

namespace {

bool can_only_be_read(const std::string& directory) {
    try {
        (void)open_directory_store(directory, StoreAccess::read);
    } catch (const ClientError&) {
        return false;
    }
    auto refused = [](const std::string& path) {
        return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 &&
               (errno == EROFS || errno == EACCES || errno == EPERM);
    };
    return refused(directory) || refused(directory + "/lock");
}

std::unique_ptr<Store> hold_all(std::unique_ptr<Store> store) {
    store->hold_sets(store->set_names());
    return store;
}

} // namespace

std::unique_ptr<Store> open_store_for_reading(const std::string& directory) {
    return hold_all(open_directory_store(directory, StoreAccess::read));
}

std::unique_ptr<Store> open_store_for_notes(const std::string& directory, const std::string& server,
                                            std::string& problem) {
    try {
        std::unique_ptr<Store> store = open_directory_store(directory, StoreAccess::change);
        use_runtime_of(*store, server);
        return store;
    } catch (const ClientError& failure) {
        if (failure.exit_code() == static_cast<int>(ExitCode::locked))
            throw;
        problem = failure.what();
    }
    return open_store_for_reading(directory);
}

std::unique_ptr<Store> open_store_or_state(const StateRequest& request,
                                           const std::string& way_out) {
    if (!request.directory.empty())
        return hold_all(open_store_with_state(request));
    if (!request.writes)
        return open_store_for_reading(request.store);
    try {
        return open_directory_store(request.store, StoreAccess::change);
    } catch (const ClientError& failure) {
        if (is_elsewhere(request.store) || !can_only_be_read(request.store))
            throw;
        throw ClientError(failure.exit_code(), failure.what(),
                          failure.hint() + (failure.hint().empty() ? "" : "; or ") + way_out);
    }
}

} // namespace qrtln
