// SPDX-License-Identifier: Apache-2.0

#include <signal.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <android-base/logging.h>

#include "handler/message_handler.h"
#include "message.h"
#include "message_cache.h"
#include "message_listener.h"
#include "sysfs_callback.h"
#include "ubo.h"
#include "ubo_wrapper.h"

using vendor::vesk::tavi::CameraMessageHandler;
using vendor::vesk::tavi::ChargerMessageHandler;
using vendor::vesk::tavi::DisplayMessageHandler;
using vendor::vesk::tavi::LinuxOsMessageHandler;
using vendor::vesk::tavi::Message;
using vendor::vesk::tavi::MessageCache;
using vendor::vesk::tavi::MessageHandler;
using vendor::vesk::tavi::MessageListener;
using vendor::vesk::tavi::ParseSysfsLogValue;
using vendor::vesk::tavi::SysfsCallback;
using vendor::vesk::tavi::UboWrapper;

namespace {

constexpr char kSysfsLogPath[] = "/sys/kernel/tavi/log";
constexpr char kCacheFilePath[] = "/mnt/vendor/persist/tavi/cache.bin";
constexpr uint32_t kCacheCapacity = 128;
constexpr int kSetupRetries = 5;
constexpr int kUboShortRetries = 10;
constexpr unsigned int kUboShortPauseSeconds = 1;
constexpr unsigned int kUboLongPauseSeconds = 60;

using HandlerList = std::vector<std::unique_ptr<MessageHandler>>;

// The attribute may appear late in boot; give it a few seconds before giving up.
bool SetupListener(MessageListener& listener, const std::vector<std::string>& sysfs_paths,
                   const std::vector<SysfsCallback>& sysfs_parsers) {
    if (listener.Setup(sysfs_paths, sysfs_parsers)) return true;
    for (int retry = 0; retry < kSetupRetries; ++retry) {
        LOG(ERROR) << "Failed to setup listener, retry in 1 sec";
        sleep(1);
        if (listener.Setup(sysfs_paths, sysfs_parsers)) return true;
    }
    LOG(FATAL) << "Failed to setup listener after " << kSetupRetries << " retries";
    return false;
}

bool IsUboActive(UboWrapper& ubo_wrapper) {
    return ubo_wrapper.Connect() && ubo_is_active(ubo_wrapper.session) > 0;
}

// Runs on its own thread until the event service is active, then wakes the poll loop so
// that the main thread flushes the cache. It never gives up: records keep being cached.
bool WaitForUbo(std::shared_ptr<UboWrapper>& ubo_wrapper, MessageListener& listener) {
    int retries_left = kUboShortRetries;
    while (!IsUboActive(*ubo_wrapper)) {
        if (retries_left != 0) {
            --retries_left;
            LOG(ERROR) << "UBO is not yet active or available, retry in 1 sec";
            sleep(kUboShortPauseSeconds);
        } else {
            LOG(ERROR) << "UBO is not yet active or available after " << kUboShortRetries
                       << " retries";
            retries_left = kUboShortRetries;
            sleep(kUboLongPauseSeconds);
        }
    }
    listener.InterruptPoll();
    return true;
}

void OfferToHandlers(HandlerList& handlers, const Message& message) {
    for (auto& handler : handlers) handler->HandleMessage(message);
}

// Replays this run's cached records first, then those a previous run left in the file.
void FlushCache(HandlerList& handlers, std::future<bool>& ubo_ready,
                std::shared_ptr<MessageCache>& message_cache) {
    if (!ubo_ready.get()) {
        LOG(FATAL) << "UBO is not available";
        return;
    }
    message_cache->Load(kCacheFilePath);
    std::vector<Message> messages;
    message_cache->Restore(messages);
    if (messages.empty()) return;

    LOG(INFO) << "Cache flush starting";
    for (const auto& message : messages) OfferToHandlers(handlers, message);
    LOG(INFO) << "Cache flush ended";
}

void StopSignalReceived(UboWrapper& ubo_wrapper, const signalfd_siginfo& info) {
    // Stopped by SIGTERM (init's stop): the event session is left open for the service.
    if (info.ssi_signo == SIGTERM) ubo_wrapper.close_session = false;
}

}  // namespace

int main() {
    LOG(INFO) << "tavi_daemon starting";

    // Declaration order is destruction order in reverse: the wrapper must go last.
    auto ubo_wrapper = std::make_shared<UboWrapper>("tavi");
    auto message_cache = std::make_shared<MessageCache>(kCacheCapacity);
    HandlerList handlers;
    const std::vector<std::string> sysfs_paths = {kSysfsLogPath};
    const std::vector<SysfsCallback> sysfs_parsers = {ParseSysfsLogValue};
    MessageListener listener;
    std::future<bool> ubo_ready;

    // Blocks SIGINT and SIGTERM before any other thread exists, so every thread inherits it.
    if (!SetupListener(listener, sysfs_paths, sysfs_parsers)) return -1;

    ubo_ready =
            std::async(std::launch::async, WaitForUbo, std::ref(ubo_wrapper), std::ref(listener));

    handlers.push_back(std::make_unique<CameraMessageHandler>(ubo_wrapper, message_cache));
    handlers.push_back(std::make_unique<LinuxOsMessageHandler>(ubo_wrapper, message_cache));
    handlers.push_back(std::make_unique<DisplayMessageHandler>(ubo_wrapper, message_cache));
    handlers.push_back(std::make_unique<ChargerMessageHandler>(ubo_wrapper, message_cache));

    listener.Poll([&](const Message& message) { OfferToHandlers(handlers, message); },
                  [&](const signalfd_siginfo& info) { StopSignalReceived(*ubo_wrapper, info); },
                  [&]() { FlushCache(handlers, ubo_ready, message_cache); });

    message_cache->Save(kCacheFilePath);
    LOG(INFO) << "tavi_daemon ended";

    // Not flushed yet: stay until the readiness task is done, as it still holds references
    // to the wrapper and the listener.
    if (ubo_ready.valid()) ubo_ready.wait();
    return 0;
}
