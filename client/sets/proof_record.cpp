#include "client/sets/proof_record.h"

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int proof_format = 1;

Proof proof_from_json(const json& document) {
    if (document.at("format").get<int>() != proof_format)
        throw std::runtime_error("has a format that this version of qrtln does not know");
    Proof proof;
    proof.set = document.at("set").get<std::string>();
    proof.time = document.at("time").get<std::int64_t>();
    proof.recovered_to = document.at("recovered_to").get<std::int64_t>();
    proof.databases = document.at("databases").get<std::uint64_t>();
    proof.client_version = document.at("client_version").get<std::string>();
    for (const json& failure : document.at("failures"))
        proof.failures.push_back(
            {get_bytes(failure, "path"), failure.at("reason").get<std::string>()});
    return proof;
}

} // namespace

std::string record_proof(Store& store, const Proof& proof) {
    json document = {{"format", proof_format},       {"set", proof.set},
                     {"time", proof.time},           {"recovered_to", proof.recovered_to},
                     {"databases", proof.databases}, {"client_version", proof.client_version},
                     {"failures", json::array()}};
    for (const ProofFailure& failure : proof.failures) {
        json& entry = document["failures"].emplace_back(json::object());
        put_bytes(entry, "path", failure.path);
        entry["reason"] = printable_utf8(failure.reason);
    }
    return store.write_note(proof.set, SetNote::proof, to_canonical(document));
}

std::optional<Proof> load_proof(Store& store, const std::string& set, std::string& problem) {
    std::optional<std::string> bytes = store.read_note(set, SetNote::proof, problem);
    if (!bytes)
        return std::nullopt;
    std::optional<json> document = from_canonical(*bytes, problem);
    if (!document)
        return std::nullopt;
    try {
        Proof proof = proof_from_json(*document);
        if (proof.set == set)
            return proof;
        problem = "is that of another set";
    } catch (const std::exception& failure) {
        problem = printable_utf8(failure.what());
    }
    return std::nullopt;
}

std::string proof_text(Store& store, const std::string& set) {
    std::string problem;
    std::optional<Proof> proof = load_proof(store, set, problem);
    if (!proof)
        return problem.empty() ? "-" : "damaged";
    std::string day = utc_time(proof->time);
    return proof->failures.empty() ? day : "failed " + day;
}

} // namespace qrtln
