/* The command line of the host program. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host.h"

enum { k_exit_usage = 2 };

struct host_options g_options = {1883, 5000, 300, 4096, 2, 0, 0, "./broker_data", NULL, NULL};

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

void parse_options(int argc, char **argv) {
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
