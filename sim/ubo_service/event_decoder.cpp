#include "event_decoder.h"

#include <map>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/empty.pb.h>
#include <google/protobuf/unknown_field_set.h>

namespace vendor::vesk::tavi::sim {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptor;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

// Every enumeration field becomes an int32 with the same number and wire type.
void PlainEnums(DescriptorProto* message) {
    for (FieldDescriptorProto& field : *message->mutable_field()) {
        if (field.type() != FieldDescriptorProto::TYPE_ENUM) continue;
        field.set_type(FieldDescriptorProto::TYPE_INT32);
        field.clear_type_name();
        field.clear_default_value();
    }
    for (DescriptorProto& nested : *message->mutable_nested_type()) PlainEnums(&nested);
}

// One value of a declared field; bytes (and nested messages) are shown as hex.
Json Value(const Message& message, const FieldDescriptor* field, int index) {
    const Reflection* reflection = message.GetReflection();
    bool repeated = field->is_repeated();
#define TAVI_GET(Type)                                               \
    (repeated ? reflection->GetRepeated##Type(message, field, index) \
              : reflection->Get##Type(message, field))
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32:
            return TAVI_GET(Int32);
        case FieldDescriptor::CPPTYPE_INT64:
            return TAVI_GET(Int64);
        case FieldDescriptor::CPPTYPE_UINT32:
            return TAVI_GET(UInt32);
        case FieldDescriptor::CPPTYPE_UINT64:
            return TAVI_GET(UInt64);
        case FieldDescriptor::CPPTYPE_BOOL:
            return TAVI_GET(Bool);
        case FieldDescriptor::CPPTYPE_FLOAT:
            return TAVI_GET(Float);
        case FieldDescriptor::CPPTYPE_DOUBLE:
            return TAVI_GET(Double);
        case FieldDescriptor::CPPTYPE_STRING: {
            std::string bytes = TAVI_GET(String);
            return field->type() == FieldDescriptor::TYPE_STRING ? bytes : Hex(bytes);
        }
        default:
            return Hex(TAVI_GET(Message).SerializeAsString());
    }
#undef TAVI_GET
}

// As it was on the wire: a varint as a signed 64-bit number, fixed ones unsigned.
Json UnknownValue(const UnknownField& field) {
    switch (field.type()) {
        case UnknownField::TYPE_VARINT:
            return static_cast<int64_t>(field.varint());
        case UnknownField::TYPE_FIXED32:
            return field.fixed32();
        case UnknownField::TYPE_FIXED64:
            return field.fixed64();
        case UnknownField::TYPE_LENGTH_DELIMITED:
            return Hex(field.length_delimited());
        default:
            return "group";
    }
}

// Adds one field's values to both forms; a single value of a field not declared repeated is
// shown bare.
void Add(DecodedEvent* event, const std::string& name, const Json& values, bool repeated,
         const FieldDescriptor* declared) {
    std::vector<std::string> texts;
    for (const Json& value : values) {
        std::string text = Dump(value);
        const auto* named = declared != nullptr && declared->enum_type() != nullptr
                                    ? declared->enum_type()->FindValueByNumber(value.get<int>())
                                    : nullptr;
        if (named != nullptr) text += " (" + named->name() + ")";
        texts.push_back(std::move(text));
    }
    bool list = repeated || values.size() > 1;
    event->fields[name] = list ? values : values[0];
    if (!event->text.empty()) event->text += ", ";
    event->text += name + ": ";
    event->text += list ? "[" + android::base::Join(texts, ", ") + "]" : texts[0];
}

void AddUnknown(DecodedEvent* event, const UnknownFieldSet& unknown) {
    std::map<int, Json> by_number;
    for (int i = 0; i < unknown.field_count(); ++i) {
        by_number[unknown.field(i).number()].push_back(UnknownValue(unknown.field(i)));
    }
    for (const auto& [number, values] : by_number) {
        Add(event, std::to_string(number), values, false, nullptr);
    }
}

class ErrorCollector : public google::protobuf::compiler::MultiFileErrorCollector {
  public:
    void AddError(const std::string& filename, int line, int column,
                  const std::string& message) override {
        // The parser counts from 0 and reports -1 for errors about the whole file.
        if (line < 0) {
            LOG(ERROR) << filename << ": " << message;
        } else {
            LOG(ERROR) << filename << ":" << line + 1 << ":" << column + 1 << ": " << message;
        }
    }
};

}  // namespace

std::unique_ptr<EventDecoder> EventDecoder::Load(const std::string& proto_path) {
    static ErrorCollector errors;
    std::unique_ptr<EventDecoder> decoder(new EventDecoder);
    decoder->source_tree_.MapPath("", android::base::Dirname(proto_path));
    decoder->importer_ =
            std::make_unique<google::protobuf::compiler::Importer>(&decoder->source_tree_, &errors);
    decoder->file_ = decoder->importer_->Import(android::base::Basename(proto_path));
    if (decoder->file_ == nullptr) {
        LOG(ERROR) << "Cannot load the event schema " << proto_path;
        return nullptr;
    }
    google::protobuf::FileDescriptorProto plain;
    decoder->file_->CopyTo(&plain);
    for (DescriptorProto& message : *plain.mutable_message_type()) PlainEnums(&message);
    decoder->plain_file_ = decoder->plain_pool_.BuildFile(plain);
    if (decoder->plain_file_ == nullptr) {
        LOG(ERROR) << "Cannot rebuild the event schema " << proto_path;
        return nullptr;
    }
    return decoder;
}

DecodedEvent EventDecoder::Decode(std::string_view probe, std::string_view payload) {
    DecodedEvent event;
    const Descriptor* declared = file_->FindMessageTypeByName(std::string(probe));
    event.known_probe = declared != nullptr;
    // Nothing declared: an empty message shows every field by its number.
    std::unique_ptr<Message> message(
            declared == nullptr
                    ? new google::protobuf::Empty
                    : factory_.GetPrototype(plain_file_->FindMessageTypeByName(declared->name()))
                              ->New());
    if (!message->ParsePartialFromArray(payload.data(), static_cast<int>(payload.size()))) {
        event.error = declared != nullptr ? "does not parse as " + declared->name()
                                          : "not a protocol-buffers message";
        // Of what is not a message at all, nothing is shown.
        if (declared == nullptr) message->Clear();
    }
    const Reflection* reflection = message->GetReflection();
    std::vector<const FieldDescriptor*> fields;
    reflection->ListFields(*message, &fields);
    for (const FieldDescriptor* field : fields) {
        Json values = Json::array();
        int count = field->is_repeated() ? reflection->FieldSize(*message, field) : 1;
        for (int i = 0; i < count; ++i) values.push_back(Value(*message, field, i));
        Add(&event, field->name(), values, field->is_repeated(),
            declared->FindFieldByNumber(field->number()));
    }
    AddUnknown(&event, reflection->GetUnknownFields(*message));
    event.text = "{" + event.text + "}";
    return event;
}

std::string Hex(std::string_view bytes, const char* byte_format) {
    std::string hex;
    for (char byte : bytes)
        hex += android::base::StringPrintf(byte_format, static_cast<uint8_t>(byte));
    return hex;
}

std::string Dump(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vendor::vesk::tavi::sim
