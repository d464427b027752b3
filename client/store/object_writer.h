// Writes one object of a directory store.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/store/compression.h"
#include "client/store/digest.h"
#include "client/store/directory_store.h"

namespace qrtln {

class DirectoryObjectWriter final : public ObjectWriter {
  public:
    explicit DirectoryObjectWriter(DirectoryStore& store);
    ~DirectoryObjectWriter() override;
    void write(Bytes bytes) override;
    StoredObject finish() override;

  private:
    void append(Bytes compressed);
    bool existing_is_whole(const std::string& name, const std::string& hash,
                           std::uint64_t& stored_size);

    DirectoryStore& m_store;
    std::string m_temporary; // its name below objects/, empty once it is gone
    FileDescriptor m_file;
    Sha256 m_digest;
    std::uint64_t m_size = 0;
    std::uint64_t m_stored_size = 0;
    Compressor m_compressor;
};

// The name of an object's file below objects/.
std::string object_file_name(const std::string& hash);

} // namespace qrtln
