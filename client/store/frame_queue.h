// Compresses frames on all processors beside the thread that makes them, and gives them back to it
// in their order.
#pragma once

#include "client/base/file_io.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace qrtln {

class FrameCompressor;

class FrameQueue {
  public:
    // `take` gets each frame, compressed, on the thread that calls add() and finish().
    explicit FrameQueue(std::function<void(Bytes)> take);
    // What was not taken is dropped.
    ~FrameQueue();
    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    // A buffer for the plain bytes of a frame, empty: one that was used before, where there is one.
    std::vector<std::byte> buffer();
    // Takes the plain bytes of the next frame. Waits where many are under way. Throws what `take`
    // and the compressor throw, for an earlier frame, too.
    void add(std::vector<std::byte> plain);
    // Waits for all frames.
    void finish();

  private:
    struct Job {
        std::vector<std::byte> plain;
        std::vector<std::byte> frame;
        std::exception_ptr failure;
        bool done = false;
    };
    void compress();
    void start_thread();
    void take_first(std::unique_lock<std::mutex>& lock);

    std::function<void(Bytes)> m_take;
    std::size_t m_most_threads;
    std::unique_ptr<FrameCompressor> m_own; // where there is nobody else
    std::vector<std::vector<std::byte>> m_buffers;
    std::mutex m_mutex; // of all below
    std::condition_variable m_added, m_done;
    std::deque<std::unique_ptr<Job>> m_jobs; // not taken yet, in their order
    std::size_t m_next = 0;                  // of these the first that nobody works on
    bool m_ends = false;
    std::vector<std::thread> m_threads;
};

} // namespace qrtln
