#include "qos/qos_reliable.h"
