// SPDX-License-Identifier: Apache-2.0
/*
 * Client API of the device's event-reporting service (libubo.so).
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ubo_session ubo_session_t;

/* Opens a session with the service; NULL when none could be created. */
ubo_session_t* ubo_create(void);

/* Greater than 0 when the service is active and takes events; 0 or less otherwise,
 * and for a NULL session. */
int32_t ubo_is_active(ubo_session_t* session);

/* Reports one serialized event; 0 or more on success, a negative code on failure. */
int32_t ubo_add_event(ubo_session_t* session, const char* source, const char* probe,
                      const uint8_t* data, size_t size);

/* Closes the session; the caller sets its handle to NULL afterwards. */
void ubo_destroy(ubo_session_t** session);

#ifdef __cplusplus
}
#endif
