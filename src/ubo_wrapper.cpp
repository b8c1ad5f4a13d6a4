// SPDX-License-Identifier: Apache-2.0

#include "ubo_wrapper.h"

#include <string>

#include <android-base/logging.h>

#include "utils.h"

namespace vendor::vesk::tavi {

UboWrapper::UboWrapper(const std::string& name) : name(name) {}

UboWrapper::~UboWrapper() {
    ubo_session_t* open_session = session.load();
    if (open_session == nullptr) return;
    if (!close_session) {
        LOG(INFO) << "Skip closing UBO session";
        return;
    }
    // The library takes the address of a plain handle variable, which the atomic is not.
    ubo_destroy(&open_session);
    session.store(nullptr);
    LOG(INFO) << "Closed UBO session";
}

bool UboWrapper::Connect() {
    if (session.load() != nullptr) return true;
    ubo_session_t* created = ubo_create();
    if (created == nullptr) {
        LOG(ERROR) << "Failed to create UBO session";
        return false;
    }
    session.store(created);
    LOG(INFO) << "Created UBO session";
    return true;
}

bool UboWrapper::Send(const google::protobuf::MessageLite& message) {
    // Every event type lives in one package, so its name always has a second piece.
    const std::string probe = Split(message.GetTypeName(), ".")[1];
    std::string payload;
    // Not tested on purpose: whatever bytes the runtime produced are what the service gets.
    message.SerializeToString(&payload);
    int32_t code = ubo_add_event(session.load(), name.c_str(), probe.c_str(),
                                 reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    if (code < 0) {
        LOG(ERROR) << "ubo_add_event() for " << probe << " probe failed with return code " << code;
        return false;
    }
    return true;
}

}  // namespace vendor::vesk::tavi
