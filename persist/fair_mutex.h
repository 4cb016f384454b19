#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace zeb {

// A mutex that is handed on in the order of arrival. Files are synchronised to the disk under it: with a
// plain one a thread that stores message after message takes it again and again before a waiting one has
// woken up.
class fair_mutex {
  public:
    void lock() {
        std::unique_lock<std::mutex> guard(state_);
        const uint64_t ticket = next_++;
        turn_.wait(guard, [&] { return serving_ == ticket; });
    }
    void unlock() {
        const std::lock_guard<std::mutex> guard(state_);
        ++serving_;
        turn_.notify_all();
    }
    // The holder and those who wait.
    uint64_t users() {
        const std::lock_guard<std::mutex> guard(state_);
        return next_ - serving_;
    }

  private:
    std::mutex state_;
    std::condition_variable turn_;
    uint64_t next_ = 0;     // guarded by state_, as is serving_
    uint64_t serving_ = 0;  // the ticket that may hold it
};

}  // namespace zeb
