#include "log/platform_thread.h"

#include <csignal>

namespace zeb {

int platform_thread_start(pthread_t *thread, const char *name, void *(*entry)(void *), void *arg) {
    // A new thread inherits the mask of its creator: block all, create, restore.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_t created{};
    const int err = pthread_create(&created, nullptr, entry, arg);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (err != 0) return err;
    (void)pthread_setname_np(created, name);  // a name is a convenience for the operator only
    *thread = created;
    return 0;
}

}  // namespace zeb
