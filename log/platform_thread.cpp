#include "log/platform_thread.h"

#include <csignal>

namespace zeb {

int platform_thread_start(pthread_t *thread, const char *name, void *(*entry)(void *), void *arg) {
    // A new thread inherits the mask of its creator: block, create, restore. Faults stay open, so that a
    // crash handler of the embedding program (or a sanitizer's) still gets its say.
    constexpr int k_faults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};
    sigset_t blocked;
    sigset_t previous;
    sigfillset(&blocked);
    for (const int fault : k_faults) sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    pthread_t created{};
    const int err = pthread_create(&created, nullptr, entry, arg);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (err != 0) return err;
    (void)pthread_setname_np(created, name);  // a name is a convenience for the operator only
    *thread = created;
    return 0;
}

}  // namespace zeb
