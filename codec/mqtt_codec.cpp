#include "codec/mqtt_codec.h"
