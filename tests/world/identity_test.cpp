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

class IdentityTest : public testing::Test {
 protected:
  IdentityTest() { host.constructing = true; }
  ~IdentityTest() override { EXPECT_EQ(zelCanUnloadModule(), zel::sOk) << "objects are left"; }
  zel::Ref<IObjectFactory> Factory(zel::IServiceLocator* given) {
    zel::Ref<zel::IObject> first;
    EXPECT_EQ(zelGetObjectFactory(given, senderClassId, first.Out()), zel::sOk);
    return zel::Ref<IObjectFactory>(static_cast<IObjectFactory*>(first.Get()));
  }

  Host host;
  Fake<zel::IServiceLocator>& locator = *host.locator;
};

TEST_F(IdentityTest, EachCallMakesAFactoryOfItsOwn) {
  zel::IObject* out = &locator;
  EXPECT_EQ(zelGetObjectFactory(&locator, IObjectFactory::iid, &out), zel::eNotImplemented);
  EXPECT_EQ(out, nullptr);
  auto one = Factory(&locator);
  const auto two = Factory(nullptr);
  EXPECT_NE(one.Get(), two.Get());
  EXPECT_EQ(locator.references, 1u) << "a factory keeps no locator";
  for (const zel::InterfaceId id : {0u, IObjectFactory::iid}) {
    zel::Ref<IObjectFactory> same;
    EXPECT_EQ(one->QueryInterface(id, same.OutVoid()), zel::sOk);
    EXPECT_EQ(same.Get(), one.Get());
  }
  one.Reset();
  EXPECT_EQ(zelCanUnloadModule(), zel::sFalse) << "the second factory lives";
}

TEST_F(IdentityTest, TheThreeInterfacesAreOneObject) {
  const auto factory = Factory(&locator);
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(&locator, zel::IIO::iid, &out), zel::eInterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  zel::Ref<zel::IObject> parts[3];
  zel::InterfaceId ids[] = {IVeldReportSender::iid, IVeldReportSenderConstruct::iid,
                            IVeldReportSenderSettings::iid};
  ASSERT_EQ(factory->CreateInstance(&locator, ids[0], parts[0].OutVoid()), zel::sOk);
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
}

}  // namespace
}  // namespace veld_report::world
