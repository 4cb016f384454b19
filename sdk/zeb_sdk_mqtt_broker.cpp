#include "sdk/zeb_sdk_mqtt_broker.h"
