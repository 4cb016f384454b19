#include "log/agent_log.h"
