#include "ubo_wrapper.h"

// Implementation lands in its own change.
