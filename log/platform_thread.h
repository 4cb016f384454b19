#pragma once

#include <pthread.h>

namespace zeb {

// Start a joinable thread that blocks every signal but the synchronous faults, so that the embedding
// program's handlers run on a thread of ours only when that thread itself has crashed. It carries `name` (at
// most 15 characters) in ps, top and debuggers. Returns 0 or the errno value of pthread_create; *thread is
// set only on success.
int platform_thread_start(pthread_t *thread, const char *name, void *(*entry)(void *), void *arg);

}  // namespace zeb
