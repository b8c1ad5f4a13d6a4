#include "message_listener.h"

// Implementation lands in its own change.
