#include "packet/packet_handler.h"
