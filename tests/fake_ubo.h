// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "ubo.h"

// Scripted stand-in for libubo.so in the unit tests: every call is recorded; results come
// from the script, which a test sets directly (single-threaded use only).
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

struct Script {
    std::deque<ubo_session_t*> create;  // results of the next creates; then null
    std::deque<int32_t> active;         // of the next is_active calls on a non-null session;
    int32_t active_after = 0;           // then this (a null session is always inactive)
    int32_t add_event = 0;
    std::vector<Record> calls;
};

// Reset by assigning `Script{}`.
extern Script script;

// A distinct handle for each `n`; never dereferenced.
ubo_session_t* Session(int n = 1);

std::vector<Record> Calls(Call call);

}  // namespace vendor::vesk::tavi::testing::fake_ubo
