// Decodes event payloads field by field, guided by the event schema read at run time.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>

namespace vendor::vesk::tavi::sim {

struct DecodedField {
    // The schema's field name, or the field number when the schema does not declare it (or
    // declares it with another wire type).
    std::string name;
    // Declared repeated: always shown as a list.
    bool repeated = false;
    // Each value rendered twice: as JSON (enums as numbers) and as text (enums with their name).
    std::vector<std::string> json_values;
    std::vector<std::string> text_values;
};

struct DecodedEvent {
    bool known_probe = false;
    // In order of first appearance on the wire.
    std::vector<DecodedField> fields;
    // Empty when the whole payload decoded; otherwise what stopped the walk.
    std::string error;

    // {log_level: 2 (LOG_LEVEL_2), error_code: 3002 (CHARGER_DETECT_SOC_FREEZE), param1: -1}
    std::string Text() const;
    // {"log_level":2,"error_code":3002,"param1":-1}
    std::string Json() const;
};

class EventDecoder {
  public:
    // Parses the schema file; null (after logging the parser's complaints) when it fails.
    static std::unique_ptr<EventDecoder> Load(const std::string& proto_path);
    EventDecoder(const EventDecoder&) = delete;
    EventDecoder& operator=(const EventDecoder&) = delete;

    // Walks the wire bytes without the schema's parsing rules, so that values a parser would
    // drop (undeclared enum numbers, unknown fields) are shown as sent.
    DecodedEvent Decode(std::string_view probe, std::string_view payload) const;

  private:
    class ErrorCollector : public google::protobuf::compiler::MultiFileErrorCollector {
      public:
        void AddError(const std::string& filename, int line, int column,
                      const std::string& message) override;
    };

    EventDecoder() = default;

    google::protobuf::compiler::DiskSourceTree source_tree_;
    ErrorCollector errors_;
    std::unique_ptr<google::protobuf::compiler::Importer> importer_;
    const google::protobuf::FileDescriptor* file_ = nullptr;
};

// "08 02 10 BA 17" for the text line.
std::string SpacedHex(std::string_view bytes);
// "080210ba17" for the JSON record.
std::string CompactHex(std::string_view bytes);

}  // namespace vendor::vesk::tavi::sim
