#include "client/store/frame_queue.h"

#include "client/store/compression.h"

#include <algorithm>
#include <csignal>
#include <system_error>
#include <utility>

namespace qrtln {

namespace {

// More would wait for the disk, and each one has a compressor's memory.
constexpr unsigned most_threads = 8;

} // namespace

FrameQueue::FrameQueue(std::function<void(Bytes)> take)
    : m_take(std::move(take)),
      m_most_threads(std::min(std::thread::hardware_concurrency(), most_threads)) {
    if (m_most_threads < 2)
        m_most_threads = 0;
}

FrameQueue::~FrameQueue() {
    {
        std::lock_guard lock(m_mutex);
        m_ends = true;
        m_next = m_jobs.size();
    }
    m_added.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

std::vector<std::byte> FrameQueue::buffer() {
    if (m_buffers.empty())
        return {};
    std::vector<std::byte> buffer = std::move(m_buffers.back());
    m_buffers.pop_back();
    buffer.clear();
    return buffer;
}

// Signals are the other threads' concern. Without a thread the caller compresses.
void FrameQueue::start_thread() {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        m_threads.emplace_back([this] { compress(); });
    } catch (const std::system_error&) {
        m_most_threads = m_threads.size();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void FrameQueue::compress() {
    std::unique_ptr<FrameCompressor> compressor;
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_added.wait(lock, [this] { return m_ends || m_next < m_jobs.size(); });
        if (m_next == m_jobs.size())
            return;
        Job& job = *m_jobs[m_next++];
        lock.unlock();
        try {
            if (!compressor)
                compressor = std::make_unique<FrameCompressor>();
            Bytes frame = compressor->compress(job.plain);
            job.frame.assign(frame.begin(), frame.end());
        } catch (...) {
            job.failure = std::current_exception();
        }
        lock.lock();
        job.done = true;
        m_done.notify_one();
    }
}

void FrameQueue::add(std::vector<std::byte> plain) {
    if (m_threads.size() < m_most_threads)
        start_thread();
    if (m_threads.empty()) {
        if (!m_own)
            m_own = std::make_unique<FrameCompressor>();
        m_take(m_own->compress(plain));
        m_buffers.push_back(std::move(plain));
        return;
    }
    std::unique_lock lock(m_mutex);
    m_jobs.push_back(std::make_unique<Job>());
    m_jobs.back()->plain = std::move(plain);
    m_added.notify_one();
    while (!m_jobs.empty() && (m_jobs.front()->done || m_jobs.size() > 2 * m_threads.size()))
        take_first(lock);
}

void FrameQueue::finish() {
    std::unique_lock lock(m_mutex);
    while (!m_jobs.empty())
        take_first(lock);
}

void FrameQueue::take_first(std::unique_lock<std::mutex>& lock) {
    m_done.wait(lock, [this] { return m_jobs.front()->done; });
    std::unique_ptr<Job> job = std::move(m_jobs.front());
    m_jobs.pop_front();
    --m_next;
    lock.unlock();
    if (job->failure)
        std::rethrow_exception(job->failure);
    m_take(job->frame);
    m_buffers.push_back(std::move(job->plain));
    lock.lock();
}

} // namespace qrtln
