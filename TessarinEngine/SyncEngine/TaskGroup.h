#pragma once

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace SyncEngine {

// Runs job(0) ... job(count - 1), in that order of start, on at most `width` threads, and hands
// each result to consume(index, result) on the calling thread, one at a time, in order of
// completion. When consume returns false no further job starts; the results of jobs already
// running are dropped. Jobs must only read shared data.
template <class Result, class Job, class Consume>
void runBounded(int count, int width, const Job& job, const Consume& consume) {
    if (count <= 0) {
        return;
    }
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::pair<int, Result>> done;
    int next = 0;
    int finishedWorkers = 0;
    bool stop = false;

    const int threads = std::max(1, std::min(width, count));
    std::vector<std::jthread> workers;
    workers.reserve(static_cast<std::size_t>(threads));
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (;;) {
                int index = 0;
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
        const bool goOn = consume(index, std::move(result));
        if (!goOn) {
            std::lock_guard relock(mutex);
            stop = true;
        }
    }
}

} // namespace SyncEngine
