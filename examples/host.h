/* What the parts of the host program share. */
#ifndef ZEB_MQTT_HOST_H
#define ZEB_MQTT_HOST_H

#include "zeb_sdk_mqtt_broker.h"

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

/* From the command line; ends the program with the usage when it is wrong. */
extern struct host_options g_options;
void parse_options(int argc, char **argv);

/* Everything that is set between create and init. */
int configure(mqtt_broker_instance *b);

/* Prints the failure of a step; returns the code. */
int report(const char *step, int code);

#endif
