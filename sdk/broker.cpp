#include "sdk/broker.h"
