#include "zel/util/rtl_impl/anyptr_helpers.h"

#include <cstdint>

#include "types/ref.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace zel {
namespace {

constexpr char unit[] = "zel/util/rtl_impl/anyptr_helpers";

[[noreturn]] void ThrowInvalidResult(std::int32_t line, ResultCode code, const char16_t* text) {
  throw InvalidResultException({unit, line}, code, wstring(text));
}

}  // namespace

const SerObjDescriptor* LookupMessageDescriptor(IServiceLocator* locator) {
  const SerObjDescriptor* descriptor = nullptr;

  Ref<MetaInfoProvider> provider;
  if (!Failed(GetInterface(locator, provider)) &&
      !Failed(provider->GetDescriptor(messageSerId, &descriptor))) {
    return descriptor;
  }

  Ref<MetaInfoRegistry> registry;
  ResultCode code = GetInterface(locator, registry);
  if (Failed(code)) ThrowInvalidResult(41, code, u"No meta info provider");
  code = registry->GetDescriptor(messageSerId, &descriptor);
  if (Failed(code)) ThrowInvalidResult(43, code, u"This structure is not registered at meta info provider");
  return descriptor;
}

}  // namespace zel
