// SPDX-License-Identifier: Apache-2.0

#include "handler/message_handler.h"

#include <android-base/logging.h>

#include "probe/tavi.pb.h"
#include "ubo.h"

namespace vendor::vesk::tavi {
namespace {

using EventPtr = std::unique_ptr<google::protobuf::MessageLite>;

bool IsLogOfCategory(const Message& message, int32_t category) {
    return message.type == LOG && message.category == category;
}

// The two leading fields every event shares. The kernel's numbers go out as they came,
// declared enumeration values or not.
template <typename Event>
std::unique_ptr<Event> NewEvent(const Message& message, int32_t error_code) {
    auto event = std::make_unique<Event>();
    event->set_log_level(static_cast<::tavi::LogLevel>(message.log_level));
    event->set_error_code(static_cast<::tavi::ErrorCode>(error_code));
    return event;
}

EventPtr PackLinuxOsBadSector(const Message& message) {
    auto event = NewEvent<::tavi::TaviLinuxOsBadSector>(message, ::tavi::LINUX_OS_BAD_SECTOR);
    event->set_param1(message.param1);
    event->set_param2(message.param2);
    event->set_param3(message.param3);
    return event;
}

EventPtr PackLinuxOsMmcRecoveryFailure(const Message& message) {
    auto event = NewEvent<::tavi::TaviLinuxOsMmcRecoveryFailure>(
            message, ::tavi::LINUX_OS_MMC_RECOVERY_FAILURE);
    event->set_param1(message.param1);
    return event;
}

EventPtr PackChargerDetectInvalidBattery(const Message& message) {
    auto event = NewEvent<::tavi::TaviChargerDetectInvalidBattery>(
            message, ::tavi::CHARGER_DETECT_INVALID_BATTERY);
    event->set_param1(message.param1 != 0);
    event->set_param2(message.param2);
    return event;
}

EventPtr PackChargerDetectPdHardReset(const Message& message) {
    auto event = NewEvent<::tavi::TaviChargerDetectPdHardReset>(
            message, ::tavi::CHARGER_DETECT_PD_HARD_RESET);
    event->set_param1(message.param1 != 0);
    return event;
}

EventPtr PackChargerDetectSocFreeze(const Message& message) {
    auto event = NewEvent<::tavi::TaviChargerDetectSocFreeze>(message,
                                                              ::tavi::CHARGER_DETECT_SOC_FREEZE);
    event->set_param1(message.param1);
    event->set_param2(message.param2);
    event->set_param3(message.param3);
    event->set_param4(message.param4 != 0);
    return event;
}

EventPtr PackChargerDetectWlcFwUpdate(const Message& message) {
    auto event = NewEvent<::tavi::TaviChargerDetectWlcFwUpdate>(
            message, ::tavi::CHARGER_DETECT_WLC_FW_UPDATE);
    event->set_param1(message.param1 != 0);
    event->set_param2(message.param2 != 0);
    event->set_param3(message.param3);
    return event;
}

EventPtr PackChargerDetectWlcManyIsr(const Message& message) {
    auto event = NewEvent<::tavi::TaviChargerDetectWlcManyIsr>(message,
                                                               ::tavi::CHARGER_DETECT_WLC_MANY_ISR);
    event->set_param1(message.param1 != 0);
    return event;
}

}  // namespace

MessageHandler::MessageHandler(std::shared_ptr<UboWrapper>& ubo_wrapper,
                               std::shared_ptr<MessageCache>& message_cache)
    : ubo_wrapper_(ubo_wrapper), message_cache_(message_cache) {}

void MessageHandler::HandleMessage(const Message& message) {
    if (!IsTargetMessage(message)) return;
    // Asked for every record: the service may come and go while the session stays open.
    if (ubo_is_active(ubo_wrapper_->session.load()) < 1) {
        LOG(INFO) << "Store the message in the cache: " << message;
        message_cache_->Store(message);
        return;
    }
    EventPtr event = PackMessage(message);
    if (event == nullptr) {
        LOG(ERROR) << "Failed to pack the massage: " << message;
        return;
    }
    LOG(INFO) << "Send the message to UBO: " << message;
    // A refused event is logged by the wrapper and lost; nothing to do here.
    ubo_wrapper_->Send(*event);
}

EventPtr CameraMessageHandler::PackMessage(const Message&) {
    return nullptr;  // No camera event exists.
}

bool CameraMessageHandler::IsTargetMessage(const Message& message) {
    return IsLogOfCategory(message, kCamera);
}

EventPtr LinuxOsMessageHandler::PackMessage(const Message& message) {
    switch (message.error_code) {
        case ::tavi::LINUX_OS_BAD_SECTOR:
            return PackLinuxOsBadSector(message);
        case ::tavi::LINUX_OS_MMC_RECOVERY_FAILURE:
            return PackLinuxOsMmcRecoveryFailure(message);
        default:
            return nullptr;
    }
}

bool LinuxOsMessageHandler::IsTargetMessage(const Message& message) {
    return IsLogOfCategory(message, kLinuxOs);
}

EventPtr DisplayMessageHandler::PackMessage(const Message& message) {
    // The kernel's code is carried whatever it is: every display record is a short.
    auto event = NewEvent<::tavi::TaviDisplayShort>(message, message.error_code);
    event->set_param1(message.param1 != 0);
    return event;
}

bool DisplayMessageHandler::IsTargetMessage(const Message& message) {
    return IsLogOfCategory(message, kDisplay);
}

EventPtr ChargerMessageHandler::PackMessage(const Message& message) {
    switch (message.error_code) {
        case ::tavi::CHARGER_DETECT_INVALID_BATTERY:
            return PackChargerDetectInvalidBattery(message);
        case ::tavi::CHARGER_DETECT_PD_HARD_RESET:
            return PackChargerDetectPdHardReset(message);
        case ::tavi::CHARGER_DETECT_SOC_FREEZE:
            return PackChargerDetectSocFreeze(message);
        case ::tavi::CHARGER_DETECT_WLC_FW_UPDATE:
            return PackChargerDetectWlcFwUpdate(message);
        case ::tavi::CHARGER_DETECT_WLC_MANY_ISR:
            return PackChargerDetectWlcManyIsr(message);
        default:
            return nullptr;
    }
}

bool ChargerMessageHandler::IsTargetMessage(const Message& message) {
    return IsLogOfCategory(message, kCharger);
}

}  // namespace vendor::vesk::tavi
