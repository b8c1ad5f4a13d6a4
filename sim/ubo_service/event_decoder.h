// Decodes event payloads field by field, guided by the event schema read at run time.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>
#include <nlohmann/json.hpp>

namespace vendor::vesk::tavi::sim {

using Json = nlohmann::ordered_json;

struct DecodedEvent {
    bool known_probe = false;
    // {"log_level":2,"error_code":3002,"param1":-1}: declared fields by number, then the others
    // by their number.
    Json fields = Json::object();
    // {log_level: 2 (LOG_LEVEL_2), error_code: 3002 (CHARGER_DETECT_SOC_FREEZE), param1: -1}
    std::string text;
    // Empty when the whole payload parsed.
    std::string error;
};

class EventDecoder {
  public:
    // Parses the schema file; null (after logging the parser's complaints) when it fails.
    static std::unique_ptr<EventDecoder> Load(const std::string& proto_path);

    // Shows values a schema-true parser would drop (undeclared enum numbers, unknown fields)
    // as they were sent.
    DecodedEvent Decode(std::string_view probe, std::string_view payload);

  private:
    EventDecoder() = default;

    google::protobuf::compiler::DiskSourceTree source_tree_;
    std::unique_ptr<google::protobuf::compiler::Importer> importer_;
    const google::protobuf::FileDescriptor* file_ = nullptr;
    // The schema with every enumeration field turned into a plain int32: the parser then keeps
    // an undeclared number in its field instead of moving it to the unknown fields.
    google::protobuf::DescriptorPool plain_pool_;
    const google::protobuf::FileDescriptor* plain_file_ = nullptr;
    google::protobuf::DynamicMessageFactory factory_;
};

// "080210ba17" for the JSON record; " %02X" gives " 08 02 10 BA 17" for the text line.
std::string Hex(std::string_view bytes, const char* byte_format = "%02x");
// A JSON value as text; bytes that are not UTF-8 are replaced rather than failing.
std::string Dump(const Json& value);

}  // namespace vendor::vesk::tavi::sim
