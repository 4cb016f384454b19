#include "client/client_mgr.h"
