// Reads files of a place elsewhere in parts that are worth a request, and those that come next
// beside who reads: as he says, or where he goes on. Parts that were read are kept for a while:
// several threads read one file, not quite in its order, and its tables again and again.
#pragma once

#include "client/remote/remote_files.h"

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace qrtln {

class ReadAhead {
  public:
    // It outlives this.
    explicit ReadAhead(RemoteFiles& files) : m_files(files) {}
    // Waits for what is under way.
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // Fills the buffer from an offset on; `size` is that of the file. False where the file is not
    // there, or ends earlier. Throws as RemoteFiles::read() does. On any thread.
    bool read(const std::string& name, std::uint64_t size, std::uint64_t offset,
              std::span<std::byte> buffer);
    // The file of this name is about to be another one.
    void forget(const std::string& name);
    // What is read next, about in this order; of what was expected before the rest is not.
    struct Range {
        std::string name;
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
    };
    void expect(std::list<Range> ranges);

  private:
    enum class State { wanted, under_way, there, failed };
    struct Part {
        std::string name;
        std::uint64_t offset = 0;
        std::vector<std::byte> bytes;
        State state = State::wanted;
        bool is_expected = false;   // and not read yet
        bool is_of_stream = false;  // who reads it goes on
        std::exception_ptr failure; // nothing: the file is not there, or ends earlier
    };
    using PartOf = std::shared_ptr<Part>;
    // Where somebody who reads along a file is, and what he was given at once.
    struct Stream {
        std::uint64_t end = 0;
        std::uint64_t step = 0;
    };

    PartOf part_with(const std::string& name, std::uint64_t offset);
    PartOf expected_part(const std::string& name, std::uint64_t offset);
    PartOf cut(std::list<Range>::iterator range);
    bool goes_on_expecting() const;
    void drop(std::list<PartOf>::iterator part);
    PartOf next_part(const std::string& name, std::uint64_t size, std::uint64_t offset,
                     std::size_t needed);
    PartOf add(const std::string& name, std::uint64_t offset, std::uint64_t count);
    void go_ahead(const std::string& name, std::uint64_t size, const Part& part);
    void start_thread();
    void fetch(const PartOf& part, std::unique_lock<std::mutex>& lock);
    void serve();

    RemoteFiles& m_files;
    std::mutex m_mutex; // of all below
    std::condition_variable m_wanted, m_fetched;
    std::list<PartOf> m_parts; // the one that was used last first
    std::uint64_t m_bytes = 0; // of them
    std::list<PartOf> m_ahead; // that nobody waits for yet
    std::list<Range> m_expected;
    std::uint64_t m_unread = 0; // bytes of parts that were expected and not read yet
    std::map<std::string, std::list<Stream>> m_streams; // of a file the newest first
    std::vector<std::thread> m_threads;
    bool m_ends = false;
};

} // namespace qrtln
