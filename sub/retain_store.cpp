#include "sub/retain_store.h"
