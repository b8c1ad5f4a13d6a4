#include "event_decoder.h"

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "json_lines.h"

namespace vendor::vesk::tavi::sim {
namespace {

using android::base::StringPrintf;
using google::protobuf::FieldDescriptor;

enum WireType : uint32_t { kVarint = 0, kFixed64 = 1, kDelimited = 2, kFixed32 = 5 };

class WireReader {
  public:
    explicit WireReader(std::string_view data) : data_(data) {}
    bool AtEnd() const { return position_ == data_.size(); }
    size_t position() const { return position_; }

    bool Varint(uint64_t* value) {
        uint64_t result = 0;
        for (int shift = 0; shift < 64 && position_ < data_.size(); shift += 7) {
            uint8_t byte = static_cast<uint8_t>(data_[position_++]);
            result |= static_cast<uint64_t>(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0) {
                *value = result;
                return true;
            }
        }
        return false;
    }

    bool Fixed(size_t size, uint64_t* value) {
        if (data_.size() - position_ < size) return false;
        uint64_t result = 0;
        for (size_t i = size; i-- > 0;) {
            result = (result << 8) | static_cast<uint8_t>(data_[position_ + i]);
        }
        position_ += size;
        *value = result;
        return true;
    }

    bool Delimited(std::string_view* value) {
        uint64_t size;
        if (!Varint(&size) || size > data_.size() - position_) return false;
        *value = data_.substr(position_, size);
        position_ += size;
        return true;
    }

  private:
    std::string_view data_;
    size_t position_ = 0;
};

struct Rendered {
    std::string json;
    std::string text;
};

Rendered Same(const std::string& value) {
    return {value, value};
}

uint32_t WireTypeOf(FieldDescriptor::Type type) {
    switch (type) {
        case FieldDescriptor::TYPE_DOUBLE:
        case FieldDescriptor::TYPE_FIXED64:
        case FieldDescriptor::TYPE_SFIXED64:
            return kFixed64;
        case FieldDescriptor::TYPE_FLOAT:
        case FieldDescriptor::TYPE_FIXED32:
        case FieldDescriptor::TYPE_SFIXED32:
            return kFixed32;
        case FieldDescriptor::TYPE_STRING:
        case FieldDescriptor::TYPE_BYTES:
        case FieldDescriptor::TYPE_MESSAGE:
        case FieldDescriptor::TYPE_GROUP:
            return kDelimited;
        default:
            return kVarint;
    }
}

Rendered RenderFloating(double value, int digits) {
    if (!isfinite(value)) return {"null", StringPrintf("%g", value)};
    return Same(StringPrintf("%.*g", digits, value));
}

Rendered RenderEnum(const FieldDescriptor* field, int32_t number) {
    const auto* value = field->enum_type()->FindValueByNumber(number);
    std::string text = std::to_string(number);
    if (value != nullptr) text += " (" + value->name() + ")";
    return {std::to_string(number), text};
}

Rendered RenderVarint(const FieldDescriptor* field, uint64_t raw) {
    switch (field->type()) {
        case FieldDescriptor::TYPE_INT32:
            return Same(std::to_string(static_cast<int32_t>(raw)));
        case FieldDescriptor::TYPE_UINT32:
            return Same(std::to_string(static_cast<uint32_t>(raw)));
        case FieldDescriptor::TYPE_UINT64:
            return Same(std::to_string(raw));
        case FieldDescriptor::TYPE_SINT32: {
            uint32_t zigzag = static_cast<uint32_t>(raw);
            return Same(std::to_string(static_cast<int32_t>(zigzag >> 1) ^
                                       -static_cast<int32_t>(zigzag & 1)));
        }
        case FieldDescriptor::TYPE_SINT64:
            return Same(std::to_string(static_cast<int64_t>(raw >> 1) ^
                                       -static_cast<int64_t>(raw & 1)));
        case FieldDescriptor::TYPE_BOOL:
            return Same(raw != 0 ? "true" : "false");
        case FieldDescriptor::TYPE_ENUM:
            return RenderEnum(field, static_cast<int32_t>(raw));
        default:
            return Same(std::to_string(static_cast<int64_t>(raw)));
    }
}

Rendered RenderFixed(const FieldDescriptor* field, uint64_t raw) {
    switch (field->type()) {
        case FieldDescriptor::TYPE_SFIXED32:
            return Same(std::to_string(static_cast<int32_t>(raw)));
        case FieldDescriptor::TYPE_SFIXED64:
            return Same(std::to_string(static_cast<int64_t>(raw)));
        case FieldDescriptor::TYPE_FLOAT: {
            float value;
            uint32_t bits = static_cast<uint32_t>(raw);
            memcpy(&value, &bits, sizeof(value));
            return RenderFloating(value, 9);
        }
        case FieldDescriptor::TYPE_DOUBLE: {
            double value;
            memcpy(&value, &raw, sizeof(value));
            return RenderFloating(value, 17);
        }
        default:
            return Same(std::to_string(raw));
    }
}

Rendered RenderDelimited(const FieldDescriptor* field, std::string_view bytes) {
    if (field != nullptr && field->type() == FieldDescriptor::TYPE_STRING) {
        return Same(JsonQuote(bytes));
    }
    return Same(JsonQuote(CompactHex(bytes)));
}

void AddValue(DecodedEvent* event, const FieldDescriptor* field, uint32_t number, Rendered value) {
    std::string name = field != nullptr ? field->name() : std::to_string(number);
    auto it = std::find_if(event->fields.begin(), event->fields.end(),
                           [&name](const DecodedField& seen) { return seen.name == name; });
    if (it == event->fields.end()) {
        it = event->fields.insert(it, DecodedField{});
        it->name = name;
        it->repeated = field != nullptr && field->is_repeated();
    } else if (field != nullptr && !field->is_repeated()) {
        // A singular field sent twice: the last value is the one a parser keeps.
        it->json_values.clear();
        it->text_values.clear();
    }
    it->json_values.push_back(std::move(value.json));
    it->text_values.push_back(std::move(value.text));
}

// One value of the given wire type; field is null for a field the schema does not declare.
bool DecodeValue(WireReader* reader, const FieldDescriptor* field, uint32_t number,
                 uint32_t wire_type, DecodedEvent* event) {
    uint64_t raw;
    switch (wire_type) {
        case kVarint:
            if (!reader->Varint(&raw)) return false;
            AddValue(event, field, number,
                     field ? RenderVarint(field, raw)
                           : Same(std::to_string(static_cast<int64_t>(raw))));
            return true;
        case kFixed32:
        case kFixed64:
            if (!reader->Fixed(wire_type == kFixed32 ? 4 : 8, &raw)) return false;
            AddValue(event, field, number,
                     field ? RenderFixed(field, raw) : Same(std::to_string(raw)));
            return true;
        case kDelimited: {
            std::string_view bytes;
            if (!reader->Delimited(&bytes)) return false;
            AddValue(event, field, number, RenderDelimited(field, bytes));
            return true;
        }
        default:
            // Groups and the reserved wire types: nothing in the schema uses them.
            return false;
    }
}

bool DecodePacked(WireReader* reader, const FieldDescriptor* field, DecodedEvent* event) {
    std::string_view bytes;
    if (!reader->Delimited(&bytes)) return false;
    WireReader elements(bytes);
    while (!elements.AtEnd()) {
        if (!DecodeValue(&elements, field, field->number(), WireTypeOf(field->type()), event)) {
            return false;
        }
    }
    return true;
}

bool DecodeField(WireReader* reader, const FieldDescriptor* field, uint32_t number,
                 uint32_t wire_type, DecodedEvent* event) {
    if (field != nullptr && field->is_packable() && wire_type == kDelimited) {
        return DecodePacked(reader, field, event);
    }
    // A declared field sent with another wire type is shown by number, as unknown.
    if (field != nullptr && WireTypeOf(field->type()) != wire_type) field = nullptr;
    return DecodeValue(reader, field, number, wire_type, event);
}

std::string Hex(std::string_view bytes, const char* format, const char* separator) {
    std::string hex;
    for (char byte : bytes) {
        if (!hex.empty()) hex += separator;
        hex += StringPrintf(format, static_cast<uint8_t>(byte));
    }
    return hex;
}

// The same layout for both forms; only quoting and spacing differ.
std::string Render(const std::vector<DecodedField>& fields, bool json) {
    const char* separator = json ? "," : ", ";
    std::string out = "{";
    for (const DecodedField& field : fields) {
        if (out.size() > 1) out += separator;
        out += json ? JsonQuote(field.name) + ":" : field.name + ": ";
        const std::vector<std::string>& values = json ? field.json_values : field.text_values;
        bool list = field.repeated || values.size() > 1;
        if (list) out += "[";
        out += android::base::Join(values, separator);
        if (list) out += "]";
    }
    return out + "}";
}

}  // namespace

std::string DecodedEvent::Text() const {
    return Render(fields, false);
}

std::string DecodedEvent::Json() const {
    return Render(fields, true);
}

void EventDecoder::ErrorCollector::AddError(const std::string& filename, int line, int column,
                                            const std::string& message) {
    // The parser counts from 0 and reports -1 for errors about the whole file.
    if (line < 0) {
        LOG(ERROR) << filename << ": " << message;
    } else {
        LOG(ERROR) << filename << ":" << line + 1 << ":" << column + 1 << ": " << message;
    }
}

std::unique_ptr<EventDecoder> EventDecoder::Load(const std::string& proto_path) {
    std::unique_ptr<EventDecoder> decoder(new EventDecoder);
    decoder->source_tree_.MapPath("", android::base::Dirname(proto_path));
    decoder->importer_ = std::make_unique<google::protobuf::compiler::Importer>(
            &decoder->source_tree_, &decoder->errors_);
    decoder->file_ = decoder->importer_->Import(android::base::Basename(proto_path));
    if (decoder->file_ == nullptr) {
        LOG(ERROR) << "Cannot load the event schema " << proto_path;
        return nullptr;
    }
    return decoder;
}

DecodedEvent EventDecoder::Decode(std::string_view probe, std::string_view payload) const {
    DecodedEvent event;
    const auto* message = file_->FindMessageTypeByName(std::string(probe));
    event.known_probe = message != nullptr;
    WireReader reader(payload);
    while (!reader.AtEnd()) {
        size_t start = reader.position();
        uint64_t tag = 0;
        bool tag_read = reader.Varint(&tag);
        uint32_t number = static_cast<uint32_t>(tag >> 3);
        if (!tag_read || number == 0 || tag > UINT32_MAX) {
            event.error = StringPrintf("invalid tag at byte %zu", start);
            break;
        }
        uint32_t wire_type = static_cast<uint32_t>(tag & 7);
        const auto* field = message != nullptr ? message->FindFieldByNumber(number) : nullptr;
        if (!DecodeField(&reader, field, number, wire_type, &event)) {
            event.error = StringPrintf("field %u (wire type %u) at byte %zu cannot be decoded",
                                       number, wire_type, start);
            break;
        }
    }
    return event;
}

std::string SpacedHex(std::string_view bytes) {
    return Hex(bytes, "%02X", " ");
}

std::string CompactHex(std::string_view bytes) {
    return Hex(bytes, "%02x", "");
}

}  // namespace vendor::vesk::tavi::sim
