// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sstream>
#include <string>
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

// Compared through the text form so that a mismatch shows every field.
inline std::vector<std::string> TextForms(const std::vector<Message>& messages) {
    std::vector<std::string> texts;
    texts.reserve(messages.size());
    for (const auto& message : messages) texts.push_back(TextForm(message));
    return texts;
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
