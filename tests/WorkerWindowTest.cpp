#include "TessarinEngine/WorkerWindow.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <set>
#include <stdexcept>

TEST(WorkerWindow, EveryResultReachesTheCallerOnceAndAStopStartsNothingMore) {
    // Each job takes a little while, so that a stop lands while others still wait to start.
    std::atomic<int> started = 0;
    std::atomic<int> running = 0;
    std::atomic<int> widest = 0;
    const auto job = [&](std::size_t index) {
        ++started;
        widest = std::max(widest.load(), ++running);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        --running;
        return static_cast<int>(index) * 2;
    };

    std::set<std::size_t> seen;
    WorkerWindow::run<int>(40, 3, job, [&](std::size_t index, int result) {
        EXPECT_EQ(result, static_cast<int>(index) * 2);
        EXPECT_TRUE(seen.insert(index).second);
        return true;
    });
    EXPECT_EQ(seen.size(), 40u);
    EXPECT_LE(widest.load(), 3);

    // A consumer that says stop, or throws (an event that cannot be written), ends the window:
    // no job starts after it beyond those already running, and the exception reaches the caller.
    for (const bool throws : {false, true}) {
        SCOPED_TRACE(throws);
        started = 0;
        int consumed = 0;
        const auto consume = [&](std::size_t, int) {
            ++consumed;
            if (throws) {
                throw std::runtime_error("lost");
            }
            return false;
        };
        if (throws) {
            EXPECT_THROW(WorkerWindow::run<int>(40, 2, job, consume), std::runtime_error);
        } else {
            WorkerWindow::run<int>(40, 2, job, consume);
        }
        EXPECT_EQ(consumed, 1);
        EXPECT_LE(started.load(), 4);
    }
}
