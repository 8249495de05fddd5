#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace WorkerWindow {

// Runs job(0) ... job(count - 1), started in that order, at most `width` at once, and hands each
// result to consume(index, result) on the calling thread, one at a time, in order of completion.
// When consume returns false, or throws, no further job starts and the results of jobs still
// running are dropped; the workers are joined before this returns (or the exception leaves).
// A job must not throw: it turns its own failures into its result.
template <class Result, class Job, class Consume>
void run(std::size_t count, std::size_t width, const Job& job, const Consume& consume) {
    if (count == 0) {
        return;
    }
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::pair<std::size_t, Result>> done;
    std::size_t next = 0;
    std::size_t finishedWorkers = 0;
    bool stop = false;

    const std::size_t threads = std::max<std::size_t>(1, std::min(width, count));
    // Declared after the workers, so it runs before they are joined: they stop taking jobs
    // whichever way the loop below is left.
    struct StopOnExit {
        std::mutex& mutex;
        bool& stop;
        ~StopOnExit() {
            std::lock_guard lock(mutex);
            stop = true;
        }
    };
    std::vector<std::jthread> workers;
    StopOnExit stopOnExit{mutex, stop};
    workers.reserve(threads);
    for (std::size_t t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (;;) {
                std::size_t index = 0;
                {
                    std::lock_guard lock(mutex);
                    if (stop || next >= count) {
                        ++finishedWorkers;
                        ready.notify_all();
                        return;
                    }
                    index = next++;
                }
                Result result = job(index);
                {
                    std::lock_guard lock(mutex);
                    done.emplace_back(index, std::move(result));
                }
                ready.notify_all();
            }
        });
    }

    for (;;) {
        std::unique_lock lock(mutex);
        ready.wait(lock, [&] { return !done.empty() || finishedWorkers == threads; });
        if (done.empty()) {
            break;
        }
        auto [index, result] = std::move(done.front());
        done.pop_front();
        if (stop) {
            continue;
        }
        lock.unlock();
        if (!consume(index, std::move(result))) {
            std::lock_guard relock(mutex);
            stop = true;
        }
    }
}

} // namespace WorkerWindow
