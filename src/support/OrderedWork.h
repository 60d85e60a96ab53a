#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

namespace cutlark {

/// Numbered pieces of work done side by side on threads of their own, handed back in their order.
///
/// `work(0)` … `work(count − 1)` run on up to `threads` threads, each taking the next number as it
/// comes free; `next` hands the results back in number order as each becomes ready, so a caller can
/// show the first while the rest are still being worked on. The caller's thread does none of the
/// work (unless not a single thread can be started), so it stays free to report progress. Opening
/// many files and `cutlark-cli --jobs` both go through it.
///
/// `abandon` stops waiting at once: no new number starts, pieces already running finish into state
/// the threads own together with this object, and their results are dropped. `work` must therefore
/// hold what it needs by value. Thread-safe where it says so; one caller otherwise.
template <class Result> class OrderedWork {
public:
    OrderedWork(int count, int threads, std::function<Result(int)> work)
        : m_shared(std::make_shared<Shared>(count, std::move(work))) {
        const int n = std::clamp(threads, 1, std::max(count, 1));
        for (int t = 0; t < n && count > 0; ++t) {
            try {
                m_threads.emplace_back([shared = m_shared] { shared->run(); });
            } catch (const std::system_error&) {
                break; // no more threads to be had
            }
        }
        if (m_threads.empty()) m_shared->run();
    }

    ~OrderedWork() {
        if (m_abandoned) return;
        m_shared->stop = true;
        for (std::thread& t : m_threads)
            t.join();
    }

    OrderedWork(const OrderedWork&) = delete;
    OrderedWork& operator=(const OrderedWork&) = delete;

    int count() const { return m_shared->count; }

    /// The result of the next number in order, waiting for it up to `timeout` (for ever when it is
    /// negative); absent when the time ran out first or every result has been handed back.
    std::optional<Result> next(std::chrono::milliseconds timeout = std::chrono::milliseconds(-1)) {
        Shared& s = *m_shared;
        std::unique_lock lock(s.mutex);
        if (m_handedBack >= s.count) return std::nullopt;
        // Read through the slot's flag, which the worker sets after the result (release, acquire):
        // the result is then ordered after its writing whatever a race checker makes of the wait.
        const auto ready = [&] { return s.ready[size_t(m_handedBack)].load(std::memory_order_acquire); };
        if (timeout.count() < 0)
            s.finishedOne.wait(lock, ready);
        else if (!s.finishedOne.wait_for(lock, timeout, ready))
            return std::nullopt;
        std::optional<Result> out = std::move(s.results[size_t(m_handedBack)]);
        s.results[size_t(m_handedBack)].reset();
        ++m_handedBack;
        return out;
    }

    /// How many pieces are finished, in whatever order. Thread-safe.
    int finished() const {
        const std::lock_guard lock(m_shared->mutex);
        return m_shared->finished;
    }

    /// Stops waiting: no new piece starts, and the threads are let go to finish what they run.
    void abandon() {
        m_shared->stop = true;
        for (std::thread& t : m_threads)
            t.detach();
        m_abandoned = true;
    }

private:
    struct Shared {
        Shared(int n, std::function<Result(int)> w)
            : count(n), work(std::move(w)), results(size_t(std::max(n, 0))),
              ready(new std::atomic<bool>[size_t(std::max(n, 0))]()) {}
        void run() {
            for (int i = next++; i < count && !stop.load(); i = next++) {
                Result r = work(i);
                const std::lock_guard lock(mutex);
                results[size_t(i)] = std::move(r);
                ready[size_t(i)].store(true, std::memory_order_release);
                ++finished;
                finishedOne.notify_all(); // under the lock: the waiting side may end as soon as it sees it
            }
        }
        const int count;
        const std::function<Result(int)> work;
        std::mutex mutex;
        std::condition_variable finishedOne;
        std::vector<std::optional<Result>> results;
        std::unique_ptr<std::atomic<bool>[]> ready; ///< set once each result is in `results`
        int finished = 0;
        std::atomic<int> next{0};
        std::atomic<bool> stop{false};
    };

    std::shared_ptr<Shared> m_shared;
    std::vector<std::thread> m_threads;
    int m_handedBack = 0;
    bool m_abandoned = false;
};

} // namespace cutlark
