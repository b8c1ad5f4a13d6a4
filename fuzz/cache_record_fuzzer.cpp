// SPDX-License-Identifier: Apache-2.0
// One cache record: the reader must accept exactly the records an independent reading of the
// format accepts, with the same fields, and an accepted record must survive being written
// and read back.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "message.h"

using vendor::vesk::tavi::Message;
using vendor::vesk::tavi::fuzz::Fail;
using vendor::vesk::tavi::fuzz::ReadRecord;
using vendor::vesk::tavi::fuzz::RecordReading;
using vendor::vesk::tavi::fuzz::SameMessage;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vendor::vesk::tavi::fuzz::SilenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string record(reinterpret_cast<const char*>(data), size);
    const RecordReading expected = ReadRecord(record);
    if (expected.out_of_range) return 0;  // ends the daemon by design

    Message message;
    const bool accepted = message.DeserializeFromString(record);
    if (accepted != expected.message.has_value()) {
        Fail(accepted ? "accepted a malformed record" : "rejected a well-formed record");
    }
    if (!accepted) return 0;
    if (!SameMessage(message, *expected.message)) Fail("fields differ from the record");

    std::string written;
    if (!message.SerializeToString(&written)) Fail("serialize returned false");
    Message reread;
    if (!reread.DeserializeFromString(written)) Fail("written record does not read back");
    if (!SameMessage(reread, message)) Fail("record changed across write and read");
    return 0;
}
