#include "client/store/object_writer.h"

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/store/mirror.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// Whether the rest of both files has the same bytes.
bool same_bytes(int left, int right) {
    constexpr std::size_t block = 256 * 1024;
    std::vector<std::byte> left_bytes(block);
    std::vector<std::byte> right_bytes(block);
    for (;;) {
        ssize_t left_got = read_up_to(left, left_bytes);
        ssize_t right_got = read_up_to(right, right_bytes);
        if (left_got < 0 || left_got != right_got)
            return false;
        if (left_got == 0)
            return true;
        if (!std::equal(left_bytes.begin(), left_bytes.begin() + left_got, right_bytes.begin()))
            return false;
    }
}

} // namespace

DirectoryObjectWriter::DirectoryObjectWriter(ObjectFolder& objects)
    : m_objects(objects), m_temporary(objects.temporary_name()),
      m_sealer(objects.place().sealing(), [this](Bytes bytes) { append(bytes); }),
      m_compressor(objects.compression(), [this](Bytes compressed) {
          m_stored_size += compressed.size();
          m_sealer.write(compressed);
      }) {
    m_file = FileDescriptor(::openat(objects.descriptor(), m_temporary.c_str(),
                                     O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!m_file) {
        m_temporary.clear();
        objects.place().fail("create an object", errno, "objects");
    }
    (void)give_to_owner_of(objects.store(), m_file.get());
}

DirectoryObjectWriter::~DirectoryObjectWriter() {
    if (!m_temporary.empty())
        ::unlinkat(m_objects.descriptor(), m_temporary.c_str(), 0);
}

void DirectoryObjectWriter::append(Bytes bytes) {
    if (int error = write_all(m_file.get(), bytes); error != 0)
        m_objects.place().fail("write an object", error);
}

void DirectoryObjectWriter::write(Bytes bytes) {
    m_digest.update(bytes);
    m_size += bytes.size();
    m_compressor.write(bytes);
}

// An object that is there already is trusted only after a look: a damaged one is replaced by the
// good copy at hand, which mends older sets too.
bool DirectoryObjectWriter::existing_is_whole(const std::string& path, const std::string& hash,
                                              std::uint64_t& stored_size) {
    if (Mirror* mirror = m_objects.place().mirror(); mirror != nullptr) {
        stored_size = mirror->size_of(path).value_or(0);
    } else {
        FileDescriptor existing(::openat(m_objects.descriptor(), name_in_folder(path).c_str(),
                                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat status {};
        if (!existing || ::fstat(existing.get(), &status) != 0 || !S_ISREG(status.st_mode))
            return false;
        stored_size = static_cast<std::uint64_t>(status.st_size);
        if (stored_size == m_stored_size && ::lseek(m_file.get(), 0, SEEK_SET) == 0 &&
            same_bytes(existing.get(), m_file.get()))
            return true;
    }
    if (m_objects.place().sealing() != nullptr)
        stored_size = unsealed_size(stored_size).value_or(0);
    // Another version of the compressor may have written other bytes for the same content, and no
    // two files are sealed to the same bytes.
    ObjectCheck check = m_objects.read(hash, [](Bytes) {});
    return check.problem.empty() && check.size == m_size;
}

StoredObject DirectoryObjectWriter::finish() {
    m_compressor.finish();
    StoredObject object;
    object.hash = m_digest.finish();
    object.size = m_size;
    object.stored_size = m_stored_size;

    const std::string path = m_objects.path_of(object.hash);
    const std::string name = name_in_folder(path);
    int objects = m_objects.descriptor();
    const StorePlace& place = m_objects.place();
    // One that is taken for new is taken back with a run that fails.
    Mirror* mirror = place.mirror();
    bool exists = place.has(objects, path);
    if (mirror == nullptr)
        m_objects.expect_flush(path);
    if (exists && m_objects.has(object.hash, m_stored_size) && mirror != nullptr)
        return object; // it has been confirmed with its hash when it was put there
    if (exists) {
        std::uint64_t stored_size = 0;
        if (existing_is_whole(path, object.hash, stored_size)) {
            (void)m_objects.note_damage(object.hash, false);
            object.stored_size = stored_size;
            return object;
        }
    }
    m_sealer.finish(stored_path(FileKind::object, object.hash));
    if (mirror == nullptr && ::fsync(m_file.get()) != 0)
        place.fail("flush an object", errno);
    if (int error = m_file.close_checked(); error != 0)
        place.fail("close an object", error);
    if (int error = make_folder(objects, name.substr(0, name.find('/')), m_objects.store());
        error != 0)
        place.fail("create a folder for objects", error, "objects");
    if (::renameat(objects, m_temporary.c_str(), objects, name.c_str()) != 0)
        place.fail("put an object in place", errno, path.substr(0, path.rfind('/')));
    m_temporary.clear();
    (void)m_objects.note_damage(object.hash, false);
    object.added = true;
    object.changed_size = m_size;
    // A mended object belongs to older sets: it is not taken back with this run.
    if (!exists)
        m_objects.note_added(path);
    if (mirror != nullptr)
        mirror->put(path, Mirror::Local::goes);
    return object;
}

} // namespace qrtln
