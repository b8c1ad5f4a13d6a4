// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <string>

#include <google/protobuf/message_lite.h>

#include "ubo.h"

namespace vendor::vesk::tavi {

// The daemon's one client of the event-reporting service.
class UboWrapper {
  public:
    explicit UboWrapper(const std::string& name);
    // Closes the session unless close_session was cleared (stop by SIGTERM).
    ~UboWrapper();
    UboWrapper(const UboWrapper&) = delete;
    UboWrapper& operator=(const UboWrapper&) = delete;

    // Opens the session unless one is open; true when a session exists afterwards.
    bool Connect();
    // Reports one event under its probe name; true when the service accepted it.
    bool Send(const google::protobuf::MessageLite& message);

    // Source name given with every event.
    const std::string name;
    // Written once by Connect() on the readiness thread and read by the handlers on the
    // main thread; atomic so that the reader sees null or the final handle, never a tear.
    std::atomic<ubo_session_t*> session{nullptr};
    bool close_session = true;
};

}  // namespace vendor::vesk::tavi
