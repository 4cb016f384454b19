#include "persist/persist.h"
