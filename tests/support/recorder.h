#pragma once

// What the test listeners share: records appended under one lock from any thread, and waits for a condition
// on them.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace lumiflux_test {

class Recorder {
public:
    /** Waits until `condition` (called under the lock) holds; false when `timeout` passed first. */
    template <typename Condition>
    bool waitFor(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(30))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, condition);
    }
    template <typename T> T snapshot(const T& field)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return field;
    }
    template <typename T, typename V> void add(std::vector<T>& list, V&& value)
    {
        std::lock_guard<std::mutex> lock(mutex);
        list.push_back(std::forward<V>(value));
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
};

} // namespace lumiflux_test
