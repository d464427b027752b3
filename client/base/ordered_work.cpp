#include "client/base/ordered_work.h"

#include <algorithm>
#include <csignal>
#include <system_error>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

// More would wait for the disk, and each one has memory of its own.
constexpr std::size_t most_threads = 8;

// Where processors are short the caller comes first, and whoever it waits for: only they bring more
// work. With as much for each, a processor had nothing to do in an eighth of a backup.
constexpr int behind_the_caller = 5;

} // namespace

OrderedWork::OrderedWork(std::size_t most_under_way)
    : m_most_under_way(most_under_way),
      m_most_threads(std::min<std::size_t>(std::thread::hardware_concurrency(), most_threads)) {
    if (m_most_threads < 2)
        m_most_threads = 0;
    m_workers = m_most_threads + 1; // the last is the caller
}

OrderedWork::~OrderedWork() {
    {
        std::lock_guard lock(m_mutex);
        m_ends = true;
        m_next = m_jobs.size();
    }
    m_added.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

// Signals are the other threads' concern. Without a thread the caller works.
void OrderedWork::start_thread() {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        m_threads.emplace_back([this, worker = m_threads.size()] { serve(worker); });
    } catch (const std::system_error&) {
        m_most_threads = m_threads.size();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void OrderedWork::run(Job& job, std::size_t worker) noexcept {
    try {
        if (job.work)
            job.work(worker);
    } catch (...) {
        job.failure = std::current_exception();
    }
}

void OrderedWork::serve(std::size_t worker) {
    std::ignore = ::nice(behind_the_caller); // of this thread alone, on Linux
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_added.wait(lock, [this] { return m_ends || m_next < m_jobs.size(); });
        if (m_next == m_jobs.size())
            return;
        Job& job = *m_jobs[m_next++];
        lock.unlock();
        run(job, worker);
        lock.lock();
        job.done = true;
        m_done.notify_one();
    }
}

void OrderedWork::add(std::size_t size, Work work, Take take) {
    auto job = std::make_unique<Job>();
    job->size = size;
    job->work = std::move(work);
    job->take = std::move(take);
    std::unique_lock lock(m_mutex);
    // A single job is not worth a thread.
    if (!m_jobs.empty() && m_threads.size() < m_most_threads)
        start_thread();
    m_jobs.push_back(std::move(job));
    m_under_way += size;
    m_added.notify_one();
    while (!m_jobs.empty() && (m_jobs.front()->done || m_under_way > m_most_under_way))
        take_first(lock);
}

void OrderedWork::finish() {
    std::unique_lock lock(m_mutex);
    while (!m_jobs.empty())
        take_first(lock);
}

void OrderedWork::take_first(std::unique_lock<std::mutex>& lock) {
    if (m_next == 0) { // nobody has come to it
        Job& job = *m_jobs[m_next++];
        lock.unlock();
        run(job, m_workers - 1);
        lock.lock();
        job.done = true;
    }
    m_done.wait(lock, [this] { return m_jobs.front()->done; });
    std::unique_ptr<Job> job = std::move(m_jobs.front());
    m_jobs.pop_front();
    --m_next;
    m_under_way -= job->size;
    lock.unlock();
    if (job->failure)
        std::rethrow_exception(job->failure);
    if (job->take)
        job->take();
    lock.lock();
}

} // namespace qrtln
