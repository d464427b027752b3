// The proof that a set can be recovered from: when it was tried, and what came of it.
#pragma once

#include "client/base/version.h"
#include "client/store/store.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct ProofFailure {
    std::string path; // of the original
    std::string reason;
};

struct Proof {
    std::string set;
    std::int64_t time = 0;         // when it was made, seconds since 1970
    std::int64_t recovered_to = 0; // the moment up to which the logs were replayed
    std::uint64_t databases = 0; // that were brought back, opened and read by the server's library
    std::vector<ProofFailure> failures;
    std::string client_version;
};

// Writes the proof beside its set, or where the store keeps state; a later one replaces it. Returns
// its file. Throws ClientError. REQUIRES: the store, or the folder for state, is locked.
std::string record_proof(Store& store, const Proof& proof);

// The newest proof of a set, or nothing with `problem` set when there is one that is damaged.
std::optional<Proof> load_proof(Store& store, const std::string& set, std::string& problem);

// For a list of sets: the day of the proof, "failed" and the day, "damaged", or "-".
std::string proof_text(Store& store, const std::string& set);

} // namespace qrtln
