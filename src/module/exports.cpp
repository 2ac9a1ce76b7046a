// The two exported functions of the module. Neither lets an exception escape. Both may be called on any
// thread and take no lock.
#include "contract/exports.h"
#include "facade/veld_report/src/veld_report_sender.h"
#include "module/object_factory.h"
#include "zel/rtl/object_module_lock.h"

#if defined(VELD_EXPORT)  // by the build, for a module that is linked into its host
#elif defined(_WIN32)     // where veld_report.def exports them
#define VELD_EXPORT extern "C"
#else
#define VELD_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

using orvel::veld_report::VeldReportSenderImpl;
using SenderObject = zel::Object<VeldReportSenderImpl, zel::LocatorObjectFactory>;
using SenderFactory =
    zel::Object<zel::GenericObjectFactory<VeldReportSenderImpl, SenderObject>, zel::SimpleObjectFactory>;

}  // namespace

VELD_EXPORT zel::ResultCode zelGetObjectFactory(zel::IServiceLocator* locator, std::uint32_t classId,
                                                zel::IObject** out) {
  if (classId != orvel::veld_report::senderClassId) {
    *out = nullptr;
    return zel::eNotImplemented;
  }
  try {
    const auto factory = zel::Ref<SenderFactory>::Attach(zel::SimpleObjectFactory::Make<SenderFactory>());
    void* asked = nullptr;
    const zel::ResultCode code = factory->QueryInterface(zel::IObjectFactory::iid, &asked);
    *out = static_cast<zel::IObjectFactory*>(asked);
    return code;
  } catch (...) {
    return zel::ConstructionExceptionToResultCode(locator);
  }
}

VELD_EXPORT zel::ResultCode zelCanUnloadModule() {
  return zel::ModuleObjectCount.load() == 0 ? zel::sOk : zel::sFalse;
}
