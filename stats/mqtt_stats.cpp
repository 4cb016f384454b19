#include "stats/mqtt_stats.h"
