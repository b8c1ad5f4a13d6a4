// Placeholder until the simulator client lands: no service is ever available.
#include "ubo.h"

extern "C" {
ubo_session_t* ubo_create(void) { return nullptr; }
int32_t ubo_is_active(ubo_session_t*) { return 0; }
int32_t ubo_add_event(ubo_session_t*, const char*, const char*, const uint8_t*, size_t) {
    return -1;
}
void ubo_destroy(ubo_session_t** session) { *session = nullptr; }
}
