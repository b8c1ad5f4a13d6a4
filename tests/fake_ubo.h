#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ubo.h"

// Scripted, thread-safe stand-in for libubo.so in the unit tests: every call is recorded;
// results come from a per-call script, then a fixed value.
namespace vendor::vesk::tavi::testing::fake_ubo {

enum class Call { kCreate, kIsActive, kAddEvent, kDestroy };

struct Record {
    Call call{};
    // Argument of is_active and add_event; for destroy the handle it was asked to close.
    ubo_session_t* session = nullptr;
    std::string source{};
    std::string probe{};
    std::string payload{};
};

// A distinct handle for each `n`; never dereferenced.
ubo_session_t* Session(int n = 1);

// Forgets every call and script: create gives null, is_active 0 and add_event 0.
void Reset();

// Results of the next calls, in order; once used up, the fixed one (for create: null).
void QueueCreate(std::vector<ubo_session_t*> results);
void QueueActive(std::vector<int32_t> results);
// Answer for a non-null session; a null session is always inactive, as the real library.
void SetActive(int32_t result);
void SetAddEvent(int32_t result);

std::vector<Record> Calls();
std::vector<Record> Calls(Call call);

}  // namespace vendor::vesk::tavi::testing::fake_ubo
