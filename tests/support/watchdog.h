#pragma once

// Ends the test program with a message when a case is still running after
// its time: a deadlock then fails the test at once instead of hanging the
// test run until ctest's timeout.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace lumiflux_test {

class Watchdog {
public:
    Watchdog(std::string what, std::chrono::seconds limit) : name(std::move(what))
    {
        guard = std::thread([this, limit] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!finished.wait_for(lock, limit, [this] { return done; })) {
                std::fprintf(stderr, "watchdog: '%s' still running after %lld s: it hangs\n", name.c_str(),
                             static_cast<long long>(limit.count()));
                std::fflush(stderr);
                std::_Exit(3);
            }
        });
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        finished.notify_all();
        guard.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string name;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::thread guard;
};

} // namespace lumiflux_test
