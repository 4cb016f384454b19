/* Runs one broker in the foreground until SIGINT or SIGTERM. Written against the public header alone. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "host.h"

enum { k_exit_failure = 1 };

int report(const char *step, int code) {
    if (code != MQTT_BROKER_OK)
        (void)fprintf(stderr, "zeb_mqtt_host: %s failed: %s\n", step, zeb_sdk_mqtt_broker_error_str(code));
    return code;
}

static int start(mqtt_broker_instance *b) {
    if (configure(b) != 0 || report("init", zeb_sdk_mqtt_broker_init(b)) != 0) return -1;
    /* init sets the level to warn, so the level asked for comes after it */
    (void)zeb_sdk_mqtt_broker_set_log_level(b, g_options.log_level);
    return report("start", zeb_sdk_mqtt_broker_start(b, g_options.port, g_options.max_clients));
}

int main(int argc, char **argv) {
    sigset_t ending;
    mqtt_broker_instance *b = NULL;
    int status = k_exit_failure;
    int signal_number = 0;

    parse_options(argc, argv);
    /* Blocked before any thread exists, so that only sigwait below ever sees them. */
    (void)sigemptyset(&ending);
    (void)sigaddset(&ending, SIGINT);
    (void)sigaddset(&ending, SIGTERM);
    if (pthread_sigmask(SIG_BLOCK, &ending, NULL) != 0) return k_exit_failure;
    /* A log reader that goes away must not end the broker. */
    (void)signal(SIGPIPE, SIG_IGN);

    b = zeb_sdk_mqtt_broker_create();
    if (b == NULL) {
        (void)fputs("zeb_mqtt_host: create failed: out of memory\n", stderr);
        return k_exit_failure;
    }
    if (start(b) == 0) {
        (void)puts("zeb_mqtt_host: ready on 0.0.0.0:1883");
        (void)fflush(stdout);
        while (sigwait(&ending, &signal_number) != 0) {
        }
        (void)report("stop", zeb_sdk_mqtt_broker_stop(b));
        status = EXIT_SUCCESS;
    }
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
    return status;
}
