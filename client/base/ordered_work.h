// Work on all processors beside the thread that hands it out, whose results come back to that
// thread in their order.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace qrtln {

class OrderedWork {
  public:
    // Gets the number of the thread that it runs on, below workers(): what it needs there may be
    // kept by that.
    using Work = std::function<void(std::size_t worker)>;
    // Runs on the thread that calls add() and finish(), after its work.
    using Take = std::function<void()>;

    // How much is under way at most, in the unit of add().
    explicit OrderedWork(std::size_t most_under_way);
    // What was not taken is dropped.
    ~OrderedWork();
    OrderedWork(const OrderedWork&) = delete;
    OrderedWork& operator=(const OrderedWork&) = delete;

    std::size_t workers() const { return m_workers; }
    // Waits where too much is under way. Throws what a work or a take throws, of earlier ones, too.
    // Without a work only the take comes when it is its turn.
    void add(std::size_t size, Work work, Take take);
    // Waits until all is taken.
    void finish();

  private:
    struct Job {
        std::size_t size = 0;
        Work work;
        Take take;
        std::exception_ptr failure;
        bool done = false;
    };
    void start_thread();
    void serve(std::size_t worker);
    static void run(Job& job, std::size_t worker) noexcept;
    void take_first(std::unique_lock<std::mutex>& lock);

    std::size_t m_most_under_way;
    std::size_t m_workers;
    std::size_t m_most_threads;
    std::mutex m_mutex; // of all below
    std::condition_variable m_added, m_done;
    std::deque<std::unique_ptr<Job>> m_jobs; // not taken yet, in their order
    std::size_t m_under_way = 0;             // the sizes of these
    std::size_t m_next = 0;                  // of these the first that nobody works on
    bool m_ends = false;
    std::vector<std::thread> m_threads;
};

} // namespace qrtln
