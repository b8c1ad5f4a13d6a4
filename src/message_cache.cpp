#include "message_cache.h"

// Implementation lands in its own change.
