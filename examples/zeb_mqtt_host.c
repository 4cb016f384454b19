/* Runs one broker in the foreground until SIGINT or SIGTERM. Written against the public header alone. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zeb_sdk_mqtt_broker.h"

enum { k_exit_failure = 1, k_exit_usage = 2 };

struct host_options {
    int port;
    int max_clients;
    int keepalive_timeout; /* seconds */
    int max_packet_size;   /* bytes */
    int log_level;
    int print_events;
    int classic;
    const char *data_dir;
    const char *deny_user;
    const char *deny_topic;
};

static struct host_options g_options = {1883, 5000, 300, 4096, 2, 0, 0, "./broker_data", NULL, NULL};

/* What every program that faces real clients should switch on. */
static const struct {
    mqtt_broker_option option;
    int value;
} k_modern[] = {
    {MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1},
    {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 30},
    {MQTT_BROKER_OPTION_LEVEL_BY_CONNECT, 1},
};

/* run.sh --help prints the option lines of this text too: keep one option per line. */
static const char k_usage[] =
    "usage: zeb_mqtt_host [options]\n"
    "\n"
    "Runs an MQTT 3.1.1 and 5.0 broker on 0.0.0.0:1883 in the foreground. Prints one ready\n"
    "line, and ends with status 0 on SIGINT or SIGTERM.\n"
    "\n"
    "  --keepalive-timeout SECONDS  silence limit of clients not yet connected, 1..3600 (300)\n"
    "  --max-packet-size BYTES      packet limit of clients not yet connected, 256..10485760 (4096)\n"
    "  --log-level LEVEL            debug, info, warn, error or fatal, or 0..4 (warn)\n"
    "  --port PORT                  recorded and logged, 1..65535; 1883 is served whatever it says (1883)\n"
    "  --max-clients COUNT          client capacity, 1..11000 (5000)\n"
    "  --data-dir DIR               where sessions and retained messages are kept (./broker_data)\n"
    "  --deny-user NAME             refuse to connect clients with this user name\n"
    "  --deny-topic PREFIX          refuse topics and filters that begin with PREFIX\n"
    "  --classic                    leave every option of the library off\n"
    "  --print-events               print a line for every client event\n"
    "  --help                       print this text\n";

static const char *const k_level_names[] = {"debug", "info", "warn", "error", "fatal"};
static const char *const k_event_names[] = {"connect",   "disconnect",  "publish",
                                            "subscribe", "unsubscribe", "will"};

static int on_auth(mqtt_broker_instance *b, const mqtt_connect_para *connect, const char *username,
                   const char *password) {
    (void)b;
    (void)connect;
    (void)password;
    return username == NULL || strcmp(username, g_options.deny_user) != 0;
}

static int on_acl(mqtt_broker_instance *b, const char *client_id, const char *topic, uint8_t action) {
    (void)b;
    (void)client_id;
    (void)action;
    return strncmp(topic, g_options.deny_topic, strlen(g_options.deny_topic)) != 0;
}

static int on_event(mqtt_broker_instance *b, uint32_t event, const char *json) {
    const size_t known = sizeof k_event_names / sizeof k_event_names[0];
    (void)b;
    (void)printf("zeb_mqtt_host: event %s %s\n", event < known ? k_event_names[event] : "unknown", json);
    (void)fflush(stdout);
    return 0;
}

/* The whole text must be one decimal number within the bounds. */
static int parse_number(const char *text, int low, int high, int *out) {
    char *end = NULL;
    long value = 0;
    errno = 0;
    value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high) return -1;
    *out = (int)value;
    return 0;
}

static int parse_level(const char *text, int *out) {
    const int count = (int)(sizeof k_level_names / sizeof k_level_names[0]);
    for (int i = 0; i < count; ++i) {
        if (strcmp(text, k_level_names[i]) == 0) {
            *out = i;
            return 0;
        }
    }
    return parse_number(text, 0, count - 1, out);
}

static int apply_option(int option, const char *value) {
    switch (option) {
        case 'k':
            return parse_number(value, 1, 3600, &g_options.keepalive_timeout);
        case 's':
            return parse_number(value, 256, 10485760, &g_options.max_packet_size);
        case 'l':
            return parse_level(value, &g_options.log_level);
        case 'p':
            return parse_number(value, 1, 65535, &g_options.port);
        case 'c':
            return parse_number(value, 1, 11000, &g_options.max_clients);
        case 'd':
            g_options.data_dir = value;
            return value[0] != '\0' && strlen(value) < sizeof((mqtt_broker_instance *)0)->data_dir ? 0 : -1;
        case 'u':
            g_options.deny_user = value;
            return 0;
        case 't':
            g_options.deny_topic = value;
            return 0;
        case 'e':
            g_options.print_events = 1;
            return 0;
        case 'o':
            g_options.classic = 1;
            return 0;
        default:
            return -1;
    }
}

static void parse_options(int argc, char **argv) {
    static const struct option k_options[] = {
        {"keepalive-timeout", required_argument, NULL, 'k'},
        {"max-packet-size", required_argument, NULL, 's'},
        {"log-level", required_argument, NULL, 'l'},
        {"port", required_argument, NULL, 'p'},
        {"max-clients", required_argument, NULL, 'c'},
        {"data-dir", required_argument, NULL, 'd'},
        {"deny-user", required_argument, NULL, 'u'},
        {"deny-topic", required_argument, NULL, 't'},
        {"classic", no_argument, NULL, 'o'},
        {"print-events", no_argument, NULL, 'e'},
        {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0},
    };
    int index = 0;
    int option = 0;
    while ((option = getopt_long(argc, argv, "", k_options, &index)) != -1) {
        if (option == 'h') {
            (void)fputs(k_usage, stdout);
            exit(EXIT_SUCCESS);
        }
        if (option != '?' && apply_option(option, optarg) == 0) continue;
        if (option != '?')
            (void)fprintf(stderr, "zeb_mqtt_host: invalid value for --%s: '%s'\n", k_options[index].name,
                          optarg);
        (void)fputs(k_usage, stderr);
        exit(k_exit_usage);
    }
    if (optind < argc) {
        (void)fprintf(stderr, "zeb_mqtt_host: unexpected argument '%s'\n%s", argv[optind], k_usage);
        exit(k_exit_usage);
    }
}

static int report(const char *step, int code) {
    if (code != MQTT_BROKER_OK)
        (void)fprintf(stderr, "zeb_mqtt_host: %s failed: %s\n", step, zeb_sdk_mqtt_broker_error_str(code));
    return code;
}

static int set_options(mqtt_broker_instance *b) {
    for (size_t i = 0; !g_options.classic && i < sizeof k_modern / sizeof k_modern[0]; ++i) {
        if (report("option", zeb_sdk_mqtt_broker_set_option(b, k_modern[i].option, k_modern[i].value)) != 0)
            return -1;
    }
    return 0;
}

static int configure(mqtt_broker_instance *b) {
    (void)snprintf(b->data_dir, sizeof b->data_dir, "%s", g_options.data_dir);
    if (g_options.print_events) zeb_sdk_mqtt_broker_register_event_callback(b, on_event);
    if (g_options.deny_user != NULL) zeb_sdk_mqtt_broker_register_auth_callback(b, on_auth);
    if (g_options.deny_topic != NULL) zeb_sdk_mqtt_broker_register_acl_callback(b, on_acl);
    if (report("keep-alive timeout",
               zeb_sdk_mqtt_broker_set_keepalive_timeout(b, g_options.keepalive_timeout)) != 0)
        return -1;
    if (report("maximum packet size",
               zeb_sdk_mqtt_broker_set_max_packet_size(b, g_options.max_packet_size)) != 0)
        return -1;
    return set_options(b);
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
