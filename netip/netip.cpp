#include "netip/netip.h"
