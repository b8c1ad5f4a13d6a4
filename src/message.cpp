// SPDX-License-Identifier: Apache-2.0

#include "message.h"

#include <sstream>
#include <vector>

#include "message_cache.h"
#include "utils.h"

namespace vendor::vesk::tavi {

namespace {

constexpr size_t kCacheRecordFieldCount = 9;

void WriteTypeName(std::ostream& os, MessageType type) {
    switch (type) {
        case LOG:
            os << "LOG";
            break;
        case DEBUG_LOG:
            os << "DEBUG_LOG";
            break;
        default:
            os << static_cast<int32_t>(type);
            break;
    }
}

// Only digits may start the fields that kernel lines always carry unsigned; a negative
// value there means the record did not come from this daemon and is refused.
bool StartsWithDigit(const std::string& piece) {
    return !piece.empty() && piece[0] >= '0' && piece[0] <= '9';
}

}  // namespace

bool Message::SerializeToString(std::string* out) const {
    std::ostringstream stream;
    for (int32_t field : {static_cast<int32_t>(type), category, log_level, error_code, param1,
                          param2, param3, param4}) {
        stream << field << kCacheFieldSeparator;
    }
    stream << message;
    *out = stream.str();
    return true;
}

bool Message::DeserializeFromString(const std::string& in) {
    const std::vector<std::string> pieces = Split(in, std::string(1, kCacheFieldSeparator));
    if (pieces.size() != kCacheRecordFieldCount) return false;

    // No range check: a value outside int32 ends the process through std::stoi's error.
    if (!StartsWithDigit(pieces[0])) return false;
    type = static_cast<MessageType>(std::stoi(pieces[0], nullptr, 10));
    int32_t* const unsigned_fields[] = {&category, &log_level, &error_code};
    for (size_t i = 0; i < 3; ++i) {
        if (!StartsWithDigit(pieces[1 + i])) return false;
        *unsigned_fields[i] = std::stoi(pieces[1 + i], nullptr, 10);
    }
    int32_t* const params[] = {&param1, &param2, &param3, &param4};
    for (size_t i = 0; i < 4; ++i) {
        if (!IsInteger(pieces[4 + i])) return false;
        *params[i] = std::stoi(pieces[4 + i], nullptr, 10);
    }
    message = pieces[8];
    return true;
}

std::ostream& operator<<(std::ostream& os, const Message& message) {
    os << "Message {Type: ";
    WriteTypeName(os, message.type);
    os << ", Category: " << message.category << ", LogLevel: " << message.log_level
       << ", ErrorCode: " << message.error_code << ", Param1: " << message.param1
       << ", Param2: " << message.param2 << ", Param3: " << message.param3
       << ", Param4: " << message.param4 << ", Message: " << message.message << "}" << std::endl;
    return os;
}

}  // namespace vendor::vesk::tavi
