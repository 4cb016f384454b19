/* Runs a broker and is its only client: tells "online 1" when the whole way from CONNECT to the query works.
 */
#define _POSIX_C_SOURCE 200809L

#include <zeb_sdk_mqtt_broker.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int connect_client(void) {
    static const unsigned char k_connect[] = {0x10, 13, 0, 4, 'M', 'Q', 'T', 'T', 4, 2, 0, 60, 0, 1, 'a'};
    static const unsigned char k_connack[] = {0x20, 2, 0, 0};
    unsigned char answer[sizeof k_connack];
    struct sockaddr_in address;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(1883);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, (const struct sockaddr *)&address, sizeof address) != 0) return -1;
    if (write(fd, k_connect, sizeof k_connect) != (ssize_t)sizeof k_connect) return -1;
    if (recv(fd, answer, sizeof answer, MSG_WAITALL) != (ssize_t)sizeof answer) return -1;
    return memcmp(answer, k_connack, sizeof answer) == 0 ? fd : -1;
}

int main(void) {
    int client = -1;
    mqtt_broker_instance *broker = zeb_sdk_mqtt_broker_create();
    if (broker == NULL || zeb_sdk_mqtt_broker_init(broker) != MQTT_BROKER_OK ||
        zeb_sdk_mqtt_broker_start(broker, 1883, 100) != MQTT_BROKER_OK)
        return 1;
    client = connect_client();
    (void)printf("version %s online %d\n", zeb_sdk_mqtt_broker_version(),
                 client < 0 ? -1 : zeb_sdk_mqtt_broker_get_online_count(broker));
    if (client >= 0) (void)close(client);
    (void)zeb_sdk_mqtt_broker_stop(broker);
    zeb_sdk_mqtt_broker_deinit(broker);
    zeb_sdk_mqtt_broker_destroy(broker);
    return 0;
}
