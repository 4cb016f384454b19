#include "sub/sub_mgr.h"
