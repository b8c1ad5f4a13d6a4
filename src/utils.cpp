#include "utils.h"

// Implementation lands in its own change.
