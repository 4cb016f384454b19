#pragma once

#include <pthread.h>

#include <cstdint>
#include <mutex>

namespace zeb {

// A mutex that is handed on in the order of arrival. Files are synchronised to the disk under it: with a
// plain one a thread that stores message after message takes it again and again before a waiting one has
// woken up.
class fair_mutex {
  public:
    void lock() {
        const std::lock_guard<std::mutex> guard(state_);
        const uint64_t ticket = next_++;
        while (serving_ != ticket) (void)pthread_cond_wait(&turn_, state_.native_handle());
    }
    void unlock() {
        const std::lock_guard<std::mutex> guard(state_);
        ++serving_;
        (void)pthread_cond_broadcast(&turn_);
    }
    // The holder and those who wait.
    uint64_t users() {
        const std::lock_guard<std::mutex> guard(state_);
        return next_ - serving_;
    }

  private:
    std::mutex state_;
    // Not the standard library's: its destructor would wait for those who wait, also in a forked child that
    // has none of them and only means to exit.
    pthread_cond_t turn_ = PTHREAD_COND_INITIALIZER;
    uint64_t next_ = 0;     // guarded by state_, as is serving_
    uint64_t serving_ = 0;  // the ticket that may hold it
};

}  // namespace zeb
