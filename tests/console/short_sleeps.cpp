// Linked to the console program for the tests that talk to it: what lasts a second there lasts a fiftieth
// here, or every test would spend its time in the pause behind a menu item and the 15 s of the statistics
// thread.
#include <chrono>
#include <thread>

#include "log/platform_time.h"

namespace {

constexpr uint64_t k_second_us = 1000000;
constexpr uint64_t k_times_as_fast = 50;

void short_sleep_us(uint64_t us) {
    std::this_thread::sleep_for(std::chrono::microseconds(us < k_second_us ? us : us / k_times_as_fast));
}

constexpr zeb::platform_clock k_clock{nullptr, nullptr, short_sleep_us};

[[maybe_unused]] const bool g_installed = (zeb::platform_set_clock(&k_clock), true);

}  // namespace
