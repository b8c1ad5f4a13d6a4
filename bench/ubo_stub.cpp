// SPDX-License-Identifier: Apache-2.0
// The event service as the benchmarks need it: always active, every event accepted at once.
// The functions keep the C linkage that ubo.h declares for them.

#include "ubo.h"

struct ubo_session {};

static ubo_session g_session;

ubo_session_t* ubo_create(void) {
    return &g_session;
}

int32_t ubo_is_active(ubo_session_t* session) {
    return session != nullptr ? 1 : 0;
}

int32_t ubo_add_event(ubo_session_t*, const char*, const char*, const uint8_t*, size_t) {
    return 0;
}

void ubo_destroy(ubo_session_t** session) {
    *session = nullptr;
}
