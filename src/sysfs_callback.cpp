#include "sysfs_callback.h"

// Implementation lands in its own change.
