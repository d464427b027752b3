// Writes one object of a directory store.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/store/compression.h"
#include "client/store/digest.h"
#include "client/store/object_folder.h"
#include "client/store/sealing.h"
#include "client/store/store.h"

namespace qrtln {

class DirectoryObjectWriter final : public ObjectWriter {
  public:
    // Throws ClientError where no file can be made. The folder outlives it.
    explicit DirectoryObjectWriter(ObjectFolder& objects);
    ~DirectoryObjectWriter() override;
    void write(Bytes bytes) override;
    StoredObject finish() override;

  private:
    void append(Bytes compressed);
    bool existing_is_whole(const std::string& path, const std::string& hash,
                           std::uint64_t& stored_size);

    ObjectFolder& m_objects;
    std::string m_temporary; // its name below objects/, empty once it is gone
    FileDescriptor m_file;
    FileSealer m_sealer;
    Sha256 m_digest;
    std::uint64_t m_size = 0;
    std::uint64_t m_stored_size = 0;
    Compressor m_compressor;
};

} // namespace qrtln
