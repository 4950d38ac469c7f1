#pragma once

// Ends the test program with a message when a case is still running after its time: a deadlock then fails the
// test at once instead of hanging the test run until ctest's timeout.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

namespace lumiflux_test {

class Watchdog {
public:
    Watchdog(std::string what, std::chrono::seconds limit)
        : guard([finished = done.get_future(), what = std::move(what), limit] {
              if (finished.wait_for(limit) == std::future_status::ready)
                  return;
              std::fprintf(stderr, "watchdog: '%s' still running after %lld s: it hangs\n", what.c_str(),
                           static_cast<long long>(limit.count()));
              std::fflush(stderr);
              std::_Exit(3);
          })
    {
    }
    ~Watchdog()
    {
        done.set_value();
        guard.join();
    }

private:
    std::promise<void> done;
    std::thread guard;
};

} // namespace lumiflux_test
