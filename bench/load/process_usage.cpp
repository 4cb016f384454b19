#include "process_usage.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace zeb_load {

namespace {

bool read_text(pid_t pid, const char *name, char *out, size_t size) {
    char path[64];
    (void)snprintf(path, sizeof path, "/proc/%ld/%s", static_cast<long>(pid), name);
    FILE *file = fopen(path, "re");
    if (file == nullptr) return false;
    const size_t got = fread(out, 1, size - 1, file);
    (void)fclose(file);  // was only read
    out[got] = '\0';
    return got > 0;
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

bool read_usage(pid_t pid, process_usage &out) {
    char text[4096];
    if (!read_text(pid, "stat", text, sizeof text)) return false;
    // The name may hold blanks and brackets; the fields behind the last bracket are numbers.
    const char *fields = strrchr(text, ')');
    unsigned long user = 0;
    unsigned long system = 0;
    if (fields == nullptr ||
        sscanf(fields + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system) != 2)
        return false;
    out.cpu_s = static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));

    if (!read_text(pid, "status", text, sizeof text)) return false;
    const char *resident = strstr(text, "VmRSS:");
    unsigned long kib = 0;
    // A process that has ended but is not waited for has no such line.
    if (resident == nullptr || sscanf(resident, "VmRSS: %lu", &kib) != 1) return false;
    out.resident_kib = kib;
    return true;
}

double own_cpu_s() {
    rusage usage{};
    (void)getrusage(RUSAGE_SELF, &usage);  // cannot fail with these arguments
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace zeb_load
