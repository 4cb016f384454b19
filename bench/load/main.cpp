// zeb_load: loads any MQTT 3.1.1 broker and prints one line of JSON.
#include <sys/prctl.h>

#include <cstdio>

#include "clients.h"
#include "scenarios.h"

namespace {

int run(const zeb_load::options &o, zeb_load::report &out) {
    zeb_load::endpoint to;
    if (!zeb_load::resolve(o.host.c_str(), static_cast<uint16_t>(o.port), to))
        return zeb_load::fail("unknown host " + o.host, out);
    if (!zeb_load::room_for(o.connection_count()))
        return zeb_load::fail("the limit of open files is too low for so many connections", out);
    // Sleeps as short as they are asked for; without this they are 50 us longer.
    (void)prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    switch (o.what) {
        case zeb_load::scenario::connect:
            return run_connect(o, to, out);
        case zeb_load::scenario::idle:
            return run_idle(o, to, out);
        default:
            return o.search ? run_search(o, to, out) : run_publish(o, to, out);
    }
}

}  // namespace

int main(int argc, char **argv) {
    zeb_load::options o;
    switch (zeb_load::parse_options(argc, argv, o)) {
        case zeb_load::parsed::help:
            zeb_load::print_help();
            return 0;
        case zeb_load::parsed::wrong:
            return 2;
        default:
            break;
    }
    zeb_load::report out;
    const int status = run(o, out);
    const bool written = fputs(out.line().c_str(), stdout) >= 0 && fflush(stdout) == 0;
    return written ? status : 1;
}
