#include "fake_ubo.h"

#include <deque>
#include <mutex>

namespace vendor::vesk::tavi::testing::fake_ubo {
namespace {

struct Script {
    std::deque<ubo_session_t*> create_queue;
    std::deque<int32_t> active_queue;
    int32_t active = 0;
    int32_t add_event = 0;
    std::vector<Record> calls;
};

std::mutex g_mutex;
Script g_script;

// The script, locked for the rest of the full expression that uses it.
struct Locked {
    std::lock_guard<std::mutex> lock{g_mutex};
    Script& script = g_script;
};

template <typename T>
T Next(std::deque<T>& queue, T fixed) {
    if (queue.empty()) return fixed;
    T result = queue.front();
    queue.pop_front();
    return result;
}

}  // namespace

ubo_session_t* Session(int n) {
    static char handles[16];
    return reinterpret_cast<ubo_session_t*>(&handles[n % sizeof(handles)]);
}

void Reset() {
    Locked().script = Script{};
}

void QueueCreate(std::vector<ubo_session_t*> results) {
    Locked().script.create_queue.assign(results.begin(), results.end());
}

void QueueActive(std::vector<int32_t> results) {
    Locked().script.active_queue.assign(results.begin(), results.end());
}

void SetActive(int32_t result) {
    Locked().script.active = result;
}

void SetAddEvent(int32_t result) {
    Locked().script.add_event = result;
}

std::vector<Record> Calls() {
    return Locked().script.calls;
}

std::vector<Record> Calls(Call call) {
    std::vector<Record> matching;
    for (auto& record : Calls()) {
        if (record.call == call) matching.push_back(record);
    }
    return matching;
}

}  // namespace vendor::vesk::tavi::testing::fake_ubo

namespace fake = vendor::vesk::tavi::testing::fake_ubo;

extern "C" {

ubo_session_t* ubo_create(void) {
    fake::Locked locked;
    locked.script.calls.push_back({fake::Call::kCreate});
    return fake::Next<ubo_session_t*>(locked.script.create_queue, nullptr);
}

int32_t ubo_is_active(ubo_session_t* session) {
    fake::Locked locked;
    locked.script.calls.push_back({fake::Call::kIsActive, session});
    if (session == nullptr) return 0;
    return fake::Next(locked.script.active_queue, locked.script.active);
}

int32_t ubo_add_event(ubo_session_t* session, const char* source, const char* probe,
                      const uint8_t* data, size_t size) {
    fake::Locked locked;
    locked.script.calls.push_back({fake::Call::kAddEvent, session, source, probe,
                                   std::string(reinterpret_cast<const char*>(data), size)});
    return locked.script.add_event;
}

void ubo_destroy(ubo_session_t** session) {
    fake::Locked().script.calls.push_back({fake::Call::kDestroy, *session});
    *session = nullptr;
}
}
