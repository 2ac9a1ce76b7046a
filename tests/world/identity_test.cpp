// From the module's export to a sender, as objects: which interfaces they have and how they count references.
#include <gtest/gtest.h>

#include "contract/exports.h"
#include "contract/io.h"
#include "contract/sender.h"
#include "tests/world/host.h"

extern "C" orvel::veld_report::GetObjectFactoryFunction zelGetObjectFactory;
extern "C" zel::ResultCode zelCanUnloadModule();

namespace veld_report::world {
namespace {

using namespace orvel::veld_report;
using zel::IObjectFactory;

TEST(IdentityTest, AFactoryAndTheThreeInterfacesOfASender) {
  Host host;
  host.constructing = true;
  zel::IServiceLocator* const locator = host.locator;
  zel::IObject* none = locator;
  EXPECT_EQ(zelGetObjectFactory(locator, IObjectFactory::iid, &none), zel::eNotImplemented);
  EXPECT_EQ(none, nullptr);
  zel::Ref<zel::IObject> made, other, parts[3];
  EXPECT_EQ(zelGetObjectFactory(locator, senderClassId, made.Out()), zel::sOk);
  EXPECT_EQ(zelGetObjectFactory(nullptr, senderClassId, other.Out()), zel::sOk);
  EXPECT_NE(made.Get(), other.Get()) << "each call makes one";
  EXPECT_EQ(host.locator->references, 1u) << "a factory keeps no locator";
  zel::Ref<IObjectFactory> factory;
  EXPECT_EQ(made->QueryInterface(IObjectFactory::iid, factory.OutVoid()), zel::sOk);
  EXPECT_EQ(factory.Get(), made.Get());

  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(locator, zel::IIO::iid, &out), zel::eInterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  const zel::InterfaceId ids[] = {IVeldReportSender::iid, IVeldReportSenderConstruct::iid,
                                  IVeldReportSenderSettings::iid};
  ASSERT_EQ(factory->CreateInstance(locator, ids[0], parts[0].OutVoid()), zel::sOk);
  for (const int i : {1, 2}) EXPECT_EQ(parts[0]->QueryInterface(ids[i], parts[i].OutVoid()), zel::sOk);
  for (const auto& part : parts) {
    zel::Ref<zel::IObject> first;
    EXPECT_EQ(part->QueryInterface(0, first.OutVoid()), zel::sOk);
    EXPECT_EQ(first.Get(), parts[0].Get());
    EXPECT_EQ(part->AddRef(), 5u) << "one count for all";
    EXPECT_EQ(first->Release(), 4u);
    EXPECT_EQ(part->QueryInterface(zel::IIO::iid, &out), zel::eInterfaceNotSupported);
    EXPECT_EQ(out, nullptr);
  }
  for (auto& part : parts) part.Reset();
  made.Reset();
  factory.Reset();
  EXPECT_EQ(zelCanUnloadModule(), zel::sFalse) << "the second factory lives";
  other.Reset();
  EXPECT_EQ(zelCanUnloadModule(), zel::sOk) << "objects are left";
}

}  // namespace
}  // namespace veld_report::world
