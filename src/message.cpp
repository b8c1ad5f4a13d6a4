#include "message.h"

// Implementation lands in its own change.
