#include "sub/topic_filter.h"
