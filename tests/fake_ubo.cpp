// SPDX-License-Identifier: Apache-2.0

#include "fake_ubo.h"

namespace vendor::vesk::tavi::testing::fake_ubo {

Script script;

ubo_session_t* Session(int n) {
    static char handles[16];
    return reinterpret_cast<ubo_session_t*>(&handles[n % sizeof(handles)]);
}

std::vector<Record> Calls(Call call) {
    std::vector<Record> matching;
    for (auto& record : script.calls) {
        if (record.call == call) matching.push_back(record);
    }
    return matching;
}

}  // namespace vendor::vesk::tavi::testing::fake_ubo

using vendor::vesk::tavi::testing::fake_ubo::Call;
using vendor::vesk::tavi::testing::fake_ubo::script;

extern "C" {

ubo_session_t* ubo_create(void) {
    script.calls.push_back({Call::kCreate});
    if (script.create.empty()) return nullptr;
    ubo_session_t* session = script.create.front();
    script.create.pop_front();
    return session;
}

int32_t ubo_is_active(ubo_session_t* session) {
    script.calls.push_back({Call::kIsActive, session});
    if (session == nullptr) return 0;
    if (script.active.empty()) return script.active_after;
    int32_t result = script.active.front();
    script.active.pop_front();
    return result;
}

int32_t ubo_add_event(ubo_session_t* session, const char* source, const char* probe,
                      const uint8_t* data, size_t size) {
    script.calls.push_back({Call::kAddEvent, session, source, probe,
                            std::string(reinterpret_cast<const char*>(data), size)});
    return script.add_event;
}

void ubo_destroy(ubo_session_t** session) {
    script.calls.push_back({Call::kDestroy, *session});
    *session = nullptr;
}
}
