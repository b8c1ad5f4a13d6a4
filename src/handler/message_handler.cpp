#include "handler/message_handler.h"

// Implementation lands in its own change.
