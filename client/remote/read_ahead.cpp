#include "client/remote/read_ahead.h"

#include "client/base/interrupt.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace qrtln {

namespace {

// From the little that stands at the end of a pack to what a line of some 100 MB/s brings while a
// few requests are answered.
constexpr std::uint64_t smallest_part = std::uint64_t{128} << 10;
constexpr std::uint64_t largest_part = std::uint64_t{4} << 20;
// Who has read so much along a file goes on, as a rule.
constexpr std::uint64_t worth_going_ahead = std::uint64_t{1} << 20;
constexpr std::size_t most_ahead = 3; // parts, and requests at once
// A part that begins where its stream is may be longer, by what somebody asks for at once.
constexpr std::uint64_t largest_request = 2 * largest_part;
constexpr std::size_t most_streams = 4; // of one file: those who read along it, and its tables
constexpr std::uint64_t most_kept = std::uint64_t{32} << 20;
constexpr std::uint64_t most_unread = 4 * largest_part;

} // namespace

ReadAhead::~ReadAhead() {
    {
        const std::lock_guard lock(m_mutex);
        m_ends = true;
        m_ahead.clear();
        m_expected.clear();
    }
    m_wanted.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

ReadAhead::PartOf ReadAhead::part_with(const std::string& name, std::uint64_t offset) {
    const auto found = std::find_if(m_parts.begin(), m_parts.end(), [&](const PartOf& part) {
        return part->name == name && offset >= part->offset &&
               offset - part->offset < part->bytes.size();
    });
    if (found == m_parts.end())
        return nullptr;
    m_parts.splice(m_parts.begin(), m_parts, found);
    return m_parts.front();
}

void ReadAhead::drop(std::list<PartOf>::iterator part) {
    m_bytes -= (*part)->bytes.size();
    if (std::exchange((*part)->is_expected, false))
        m_unread -= (*part)->bytes.size();
    m_ahead.remove(*part);
    m_parts.erase(part);
}

void ReadAhead::expect(std::list<Range> ranges) {
    const std::lock_guard lock(m_mutex);
    m_expected = std::move(ranges);
    for (Range& range : m_expected)
        if (const PartOf known = part_with(range.name, range.begin))
            range.begin = std::min(range.end, known->offset + known->bytes.size());
    m_expected.remove_if([](const Range& range) { return range.begin == range.end; });
    std::uint64_t bytes = 0;
    for (const Range& range : m_expected)
        bytes += range.end - range.begin;
    for (std::uint64_t worth = 0; worth < bytes && m_threads.size() < most_ahead;
         worth += largest_part)
        start_thread();
    m_wanted.notify_all();
}

bool ReadAhead::goes_on_expecting() const {
    return !m_expected.empty() && m_unread + largest_part <= most_unread;
}

// The beginning of what is expected there.
ReadAhead::PartOf ReadAhead::cut(std::list<Range>::iterator range) {
    const std::uint64_t count = std::min(largest_part, range->end - range->begin);
    PartOf part = add(range->name, range->begin, count);
    part->is_expected = true;
    m_unread += count;
    range->begin += count;
    if (range->begin == range->end)
        m_expected.erase(range);
    return part;
}

// Nothing where it is not expected. What stands before it waits for somebody else.
ReadAhead::PartOf ReadAhead::expected_part(const std::string& name, std::uint64_t offset) {
    const auto range = std::find_if(m_expected.begin(), m_expected.end(), [&](const Range& one) {
        return one.name == name && offset >= one.begin && offset < one.end;
    });
    if (range == m_expected.end())
        return nullptr;
    if (range->begin < offset)
        m_expected.insert(range, {name, std::exchange(range->begin, offset), offset});
    return cut(range);
}

ReadAhead::PartOf ReadAhead::add(const std::string& name, std::uint64_t offset,
                                 std::uint64_t count) {
    auto part = std::make_shared<Part>();
    part->name = name;
    part->offset = offset;
    part->bytes.resize(count);
    m_parts.push_front(part);
    m_bytes += count;
    while (m_bytes > most_kept && m_parts.back() != part) // who has one still has its bytes
        drop(std::prev(m_parts.end()));
    return part;
}

// That has this offset and, where one request can bring that, what is needed from there on.
ReadAhead::PartOf ReadAhead::next_part(const std::string& name, std::uint64_t size,
                                       std::uint64_t offset, std::size_t needed) {
    std::list<Stream>& streams = m_streams[name];
    auto stream = std::find_if(streams.begin(), streams.end(), [&](const Stream& one) {
        return offset >= one.end && offset - one.end <= one.step;
    });
    std::uint64_t begin = offset;
    if (stream != streams.end()) {
        begin = stream->end;
        stream->step = std::min(stream->step * 2, largest_part);
    } else {
        if (offset + needed == size) // its end, and what stands before that is asked for next
            begin = size - std::min(size, std::max<std::uint64_t>(smallest_part, needed));
        streams.push_front({begin, smallest_part});
        streams.resize(std::min(streams.size(), most_streams));
        stream = streams.begin();
    }
    const std::uint64_t count =
        std::min(std::clamp<std::uint64_t>(offset - begin + needed, stream->step, largest_request),
                 size - begin);
    stream->end = begin + count;
    PartOf part = add(name, begin, count);
    part->is_of_stream = true;
    return part;
}

void ReadAhead::go_ahead(const std::string& name, std::uint64_t size, const Part& part) {
    const std::uint64_t part_end = part.offset + part.bytes.size();
    for (Stream& stream : m_streams[name]) {
        if (stream.step < worth_going_ahead || part_end > stream.end)
            continue;
        while (stream.end < size && m_ahead.size() < most_ahead &&
               stream.end - part_end < most_ahead * stream.step) {
            stream.step = std::min(stream.step * 2, largest_part);
            m_ahead.push_back(add(name, stream.end, std::min(stream.step, size - stream.end)));
            m_ahead.back()->is_of_stream = true;
            stream.end += m_ahead.back()->bytes.size();
            if (m_threads.size() < most_ahead)
                start_thread();
            m_wanted.notify_one();
        }
    }
}

void ReadAhead::start_thread() {
    const InterruptsBlocked blocked; // they are the other threads' concern
    try {
        m_threads.emplace_back([this] { serve(); });
    } catch (const std::system_error&) { // who reads fetches the part
    }
}

void ReadAhead::fetch(const PartOf& part, std::unique_lock<std::mutex>& lock) {
    part->state = State::under_way;
    m_ahead.remove(part);
    lock.unlock();
    bool is_there = false;
    std::exception_ptr failure;
    try {
        is_there = m_files.read(part->name, part->offset, part->bytes);
    } catch (...) {
        failure = std::current_exception();
    }
    lock.lock();
    part->failure = failure;
    part->state = is_there ? State::there : State::failed;
    m_fetched.notify_all();
}

void ReadAhead::serve() {
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wanted.wait(lock, [this] { return m_ends || !m_ahead.empty() || goes_on_expecting(); });
        if (m_ends)
            return;
        fetch(m_ahead.empty() ? cut(m_expected.begin()) : PartOf(m_ahead.front()), lock);
    }
}

bool ReadAhead::read(const std::string& name, std::uint64_t size, std::uint64_t offset,
                     std::span<std::byte> buffer) {
    if (offset > size || buffer.size() > size - offset)
        return false;
    std::unique_lock lock(m_mutex);
    while (!buffer.empty()) {
        PartOf part = part_with(name, offset);
        if (!part)
            part = expected_part(name, offset);
        if (!part)
            part = next_part(name, size, offset, buffer.size());
        if (part->is_of_stream)
            go_ahead(name, size, *part);
        if (std::exchange(part->is_expected, false)) {
            m_unread -= part->bytes.size();
            m_wanted.notify_one();
        }
        if (part->state == State::wanted)
            fetch(part, lock);
        m_fetched.wait(lock, [&] { return part->state != State::under_way; });
        if (part->state == State::failed) { // the next one tries again
            if (const auto kept = std::find(m_parts.begin(), m_parts.end(), part);
                kept != m_parts.end())
                drop(kept);
            if (part->failure)
                std::rethrow_exception(part->failure);
            return false;
        }
        const std::size_t before = offset - part->offset;
        const std::size_t count = std::min(buffer.size(), part->bytes.size() - before);
        std::copy_n(part->bytes.begin() + static_cast<std::ptrdiff_t>(before), count,
                    buffer.begin());
        buffer = buffer.subspan(count);
        offset += count;
    }
    return true;
}

void ReadAhead::forget(const std::string& name) {
    const std::lock_guard lock(m_mutex);
    m_streams.erase(name);
    m_ahead.remove_if([&](const PartOf& part) { return part->name == name; });
    m_expected.remove_if([&](const Range& range) { return range.name == name; });
    for (auto part = m_parts.begin(); part != m_parts.end();)
        if (const auto one = part++; (*one)->name == name)
            drop(one);
}

} // namespace qrtln
