#include "formats/message_descriptors.h"

#include <cstddef>

namespace orvel::veld_report {

constinit zel::NoSerVectorHelperImpl<void> noVectorHelper;

namespace {

constinit zel::SerObjDescriptorImpl<Signature> signatureHelper;
constinit zel::SerObjDescriptorImpl<Message> messageHelper;
constinit zel::SerVectorHelperImpl<zel::vector_t<Signature>> signaturesHelper;

constexpr zel::SerFieldDescriptor NarrowStringRow(const char* name, std::size_t offset) {
  zel::SerFieldDescriptor row;
  row.typeId = zel::SerFieldDescriptor::narrowString;
  row.name = name;
  row.flags = zel::SerFieldDescriptor::plainField;
  row.offset = static_cast<std::uint32_t>(offset);
  row.size = sizeof(zel::string);
  return row;
}

constexpr zel::SerFieldDescriptor VectorRow(std::uint32_t elementId, const char* name, std::size_t offset,
                                            std::size_t size, zel::SerVectorHelper* helper) {
  zel::SerFieldDescriptor row;
  row.typeId = elementId;
  row.name = name;
  row.flags = zel::SerFieldDescriptor::vectorOfRecords;
  row.offset = static_cast<std::uint32_t>(offset);
  row.size = size;
  row.vectorHelper = helper;
  return row;
}

constexpr zel::SerFieldDescriptor EndRow() {
  zel::SerFieldDescriptor row;
  row.flags = zel::SerFieldDescriptor::endOfTable;
  return row;
}

constinit const zel::SerFieldDescriptor signatureFields[] = {
    NarrowStringRow("protected", offsetof(Signature, protected_)),
    EndRow(),
};
constinit const zel::SerFieldDescriptor messageFields[] = {
    NarrowStringRow("payload", offsetof(Message, payload)),
    VectorRow(Signature::serId, "signatures", offsetof(Message, signatures), sizeof(Message::signatures),
              &signaturesHelper),
    EndRow(),
};

constinit const zel::SerObjDescriptor signatureDescriptor{Signature::serId, "Signature", sizeof(Signature),
                                                          signatureFields, &signatureHelper};
constinit const zel::SerObjDescriptor messageDescriptor{Message::serId, "Message", sizeof(Message),
                                                        messageFields, &messageHelper};

}  // namespace
}  // namespace orvel::veld_report

namespace zel {

template <>
constinit const SerObjDescriptor* const StaticDescriptor<orvel::veld_report::Signature>::pointer =
    &orvel::veld_report::signatureDescriptor;
template <>
constinit const SerObjDescriptor* const StaticDescriptor<orvel::veld_report::Message>::pointer =
    &orvel::veld_report::messageDescriptor;

}  // namespace zel
