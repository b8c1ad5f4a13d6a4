// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <android-base/stringprintf.h>

#include "message.h"
#include "message_cache.h"

namespace vendor::vesk::tavi::testing {

inline std::string TextForm(const Message& message) {
    std::ostringstream os;
    os << message;
    return os.str();
}

using MessageFields = std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                                 int32_t, std::string>;

// Compared field by field so that a mismatch shows every field.
inline std::vector<MessageFields> Fields(const std::vector<Message>& messages) {
    std::vector<MessageFields> fields;
    fields.reserve(messages.size());
    for (const auto& m : messages) {
        fields.emplace_back(m.type, m.category, m.log_level, m.error_code, m.param1, m.param2,
                            m.param3, m.param4, m.message);
    }
    return fields;
}

// Takes every message the cache holds.
inline std::vector<Message> Drain(MessageCache& cache) {
    std::vector<Message> out;
    cache.Restore(out);
    return out;
}

// "08 01 10 B9": upper-case bytes separated by blanks.
inline std::string Hex(const std::string& bytes) {
    std::string hex;
    for (unsigned char byte : bytes) {
        hex += android::base::StringPrintf(hex.empty() ? "%02X" : " %02X", byte);
    }
    return hex;
}

// The death-test macro catches exceptions itself; a noexcept frame lets a conversion's
// error end the process the way it does in the daemon, where nothing catches it.
template <typename Function>
void RunUncaught(Function function) noexcept {
    function();
}

}  // namespace vendor::vesk::tavi::testing
