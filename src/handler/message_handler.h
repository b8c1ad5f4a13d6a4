// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>

#include <google/protobuf/message_lite.h>

#include "message.h"
#include "message_cache.h"
#include "ubo_wrapper.h"

namespace vendor::vesk::tavi {

// Routes a record of its device area: cached while the service is inactive, otherwise
// packed into its event and sent.
class MessageHandler {
  public:
    MessageHandler(std::shared_ptr<UboWrapper>& ubo_wrapper,
                   std::shared_ptr<MessageCache>& message_cache);
    virtual ~MessageHandler() = default;
    MessageHandler(const MessageHandler&) = delete;
    MessageHandler& operator=(const MessageHandler&) = delete;

    // The event for `message`, every field present; null when there is none.
    virtual std::unique_ptr<google::protobuf::MessageLite> PackMessage(const Message& message) = 0;
    virtual bool IsTargetMessage(const Message& message) = 0;

    void HandleMessage(const Message& message);

  protected:
    std::shared_ptr<UboWrapper> ubo_wrapper_;
    std::shared_ptr<MessageCache> message_cache_;
};

class CameraMessageHandler : public MessageHandler {
  public:
    using MessageHandler::MessageHandler;
    std::unique_ptr<google::protobuf::MessageLite> PackMessage(const Message& message) override;
    bool IsTargetMessage(const Message& message) override;
};

class LinuxOsMessageHandler : public MessageHandler {
  public:
    using MessageHandler::MessageHandler;
    std::unique_ptr<google::protobuf::MessageLite> PackMessage(const Message& message) override;
    bool IsTargetMessage(const Message& message) override;
};

class DisplayMessageHandler : public MessageHandler {
  public:
    using MessageHandler::MessageHandler;
    std::unique_ptr<google::protobuf::MessageLite> PackMessage(const Message& message) override;
    bool IsTargetMessage(const Message& message) override;
};

class ChargerMessageHandler : public MessageHandler {
  public:
    using MessageHandler::MessageHandler;
    std::unique_ptr<google::protobuf::MessageLite> PackMessage(const Message& message) override;
    bool IsTargetMessage(const Message& message) override;
};

}  // namespace vendor::vesk::tavi
