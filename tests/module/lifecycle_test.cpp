// From the exports to a live sender and back: factory, creation, Construct, the last Release.

#include <functional>
#include <new>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::senderClassId;
using zel::IObjectFactory;

class LifecycleTest : public SenderTest {
 protected:
  zel::Ref<IObjectFactory> Factory(zel::IServiceLocator* locator) {
    zel::Ref<zel::IObject> first;
    EXPECT_EQ(module.getObjectFactory(locator, senderClassId, first.Out()), zel::sOk);
    return zel::Ref<IObjectFactory>(static_cast<IObjectFactory*>(first.Get()));
  }
};

TEST_F(LifecycleTest, EachCallForTheSendersClassMakesAFactoryOfItsOwn) {
  zel::IObject* out = host.mode.Get();
  EXPECT_EQ(module.getObjectFactory(host.locator.Get(), IObjectFactory::iid, &out), zel::eNotImplemented);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(module.canUnload(), zel::sOk);
  auto one = Factory(host.locator.Get());
  auto two = Factory(nullptr);
  EXPECT_NE(one.Get(), two.Get());
  EXPECT_EQ(host.locator->References(), 1u) << "a factory keeps no locator";
  for (const zel::InterfaceId id : {0u, IObjectFactory::iid}) {
    zel::Ref<IObjectFactory> same;
    EXPECT_EQ(one->QueryInterface(id, same.OutVoid()), zel::sOk);
    EXPECT_EQ(same.Get(), one.Get());
  }
  one.Reset();
  EXPECT_EQ(module.canUnload(), zel::sFalse) << "the second factory lives";
}

TEST_F(LifecycleTest, TheThreeInterfacesAreOneObject) {
  ASSERT_EQ(Create(), zel::sOk);
  for (zel::IObject* part :
       std::initializer_list<zel::IObject*>{sender.Get(), construct.Get(), settings.Get()}) {
    zel::Ref<zel::IObject> first;
    EXPECT_EQ(part->QueryInterface(0, first.OutVoid()), zel::sOk);
    EXPECT_EQ(first.Get(), sender.Get());
    EXPECT_EQ(part->AddRef(), 5u) << "one count for all";
    EXPECT_EQ(first->Release(), 4u);
    void* unknown = part;
    EXPECT_EQ(part->QueryInterface(zel::IIO::iid, &unknown), zel::eInterfaceNotSupported);
    EXPECT_EQ(unknown, nullptr);
  }
}

TEST_F(LifecycleTest, ACreatedSenderGoesWithoutACallToTheHost) {
  ASSERT_EQ(Create(), zel::sOk);
  EXPECT_THAT(host.locator->TakeLookUps(), ElementsAre(0x9cca5603, 0x9cca5603, 0x6ef3329b, 0x898b9c28));
  EXPECT_EQ(Send("{}"), zel::eNotInitialized);
  EXPECT_EQ(Set({}), zel::eNotInitialized);
  End();
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
  EXPECT_THAT(Events(), IsEmpty());
  host.ExpectNothingHeld();
}

TEST_F(LifecycleTest, CreationThatFailsLeavesNothingBehind) {
  const std::string prefix = "300 Exception during object construction: ";
  const std::string at = ". At zel\\rtl\\error_handling\\../objclient(129) ";
  const std::string missing = prefix + "GetInterfaceException - 0x80000045 (Access denied): iid = 0x";
  struct Row {
    const char* what;
    std::function<void()> script;
    ResultCode result;
    Strings lines;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"no allocator", [&] { host.locator->LackNth(zel::IAllocator::iid, 1, someCode); }, someCode, {}},
      {"no allocator for the object", [&] { host.locator->LackNth(zel::IAllocator::iid, 2, someCode); },
       someCode, {missing + "9cca5603" + at}},
      {"no hash", [&] { host.locator->LackNth(crypto::hash::IHashCalculatorFactory::iid, 1, someCode); },
       someCode, {missing + "898b9c28" + at}},
      {"no memory", [&] { host.allocator->FailNth(1); }, zel::eOutOfMemory, {prefix + "std::bad_alloc"}},
      {"a service throws", [&] { script().Throw("GetInterface 0x898b9c28"); }, zel::eUnknownException,
       {prefix + "scripted"}},
  };
  // clang-format on
  auto factory = Factory(host.locator.Get());
  void* out = &out;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    EXPECT_EQ(factory->CreateInstance(host.locator.Get(), 0, &out), row.result);
    EXPECT_EQ(out, &out) << "untouched";
    EXPECT_THAT(Lines(), ElementsAreArray(row.lines));
    host.ExpectNothingHeld();
    script().Clear();
  }
  EXPECT_EQ(factory->CreateInstance(host.locator.Get(), zel::IIO::iid, &out), zel::eInterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
}

const char networkLine[] = "INetworkInformationProvider is not used in this BSK version";
const char settingsLine[] =
    "VeldReportSenderImpl::SetSettings called... New settings: 1 urls; packetLimit = 2; queueLimit = 10Kb; "
    "sendTimeout = 7";

TEST_F(LifecycleTest, ConstructLooksItsServicesUpInOrder) {
  ASSERT_EQ(Create(), zel::sOk);
  host.locator->TakeLookUps();
  ASSERT_EQ(Construct({}), zel::sOk);
  EXPECT_THAT(host.locator->TakeLookUps(),
              ElementsAre(0x03ed713c, 0xf623e84a, 0x26248558, 0xf9fcadfa, 0x09f6a0bf, 0xccd50778));
  EXPECT_THAT(Lines(), ElementsAre(Line(networkLine), Line(settingsLine)));
  EXPECT_THAT(Events(), ElementsAre("CreateClient", "SetCertificates 1"));
  EXPECT_FALSE(host.timer->Armed());
  EXPECT_EQ(host.httpFactory->References(), 1u);
  End();
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
  EXPECT_THAT(Events(), ElementsAre("CancelTimer"));
}

TEST_F(LifecycleTest, OptionalServicesAreMissedInTheTraceOnly) {
  for (const zel::InterfaceId missing : {orvel::IExecutionModeProvider::iid, orvel::ISignatureProvider::iid,
                                         orvel::IRequestsNotification::iid, zel::ITimerService::iid}) {
    host.locator->Lack(missing, someCode);
  }
  ASSERT_EQ(Construct({}), zel::sOk);
  EXPECT_THAT(Lines(),
              ElementsAre(Line(networkLine), Line("IExecutionModeProvider interface is not available!"),
                          Line("Cann't get ISignatureProvider iface"),
                          Line("Cann't get IRequestsNotification iface"), Line(settingsLine)));
  // Without a timer nothing runs, and only the last flush takes what was submitted.
  EXPECT_EQ(Send("{\"a\":1}"), zel::sOk);
  Events();
  End();
  EXPECT_THAT(Events(), ElementsAre("CreateProducer 0a 10240", "Push 0a {\"a\":1}"));
}

TEST_F(LifecycleTest, ConstructFails) {
  const std::string certificates = "300 veld_rep\tCann't update certificates for urls";
  const auto caught = [](std::string_view rest) { return CaughtLine("Construct", rest); };
  const auto refused = [&](ResultCode code) {
    return caught(SystemError("SetSettings failed. Check component settings", code, "739"));
  };
  struct Row {
    const char* what;
    std::function<void()> script;
    Plan plan;
    ResultCode result;
    Strings failureLines;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"no queue factory", [&] { host.locator->Lack(orvel::IQueueFactory::iid, someCode); }, {}, someCode,
       {caught(SystemError("IQueueFactory not available", someCode, "697"))}},
      {"no http factory", [&] { host.locator->Lack(network_services::IHttpClientFactory::iid, someCode); },
       {}, someCode, {caught(SystemError("Cann't get IHttpClientFactory iface", someCode, "700"))}},
      {"no client", [&] { script().Fail("CreateClient", someCode); }, {}, someCode,
       {caught(SystemError("Cann't create IHttpClient", someCode, "701"))}},
      {"bad settings", [] {}, {.consumers = {"x", "y"}}, zel::eInvalidArgument,
       {refused(zel::eInvalidArgument)}},
      {"certificates refused", [&] { script().Fail("SetCertificates", someCode); }, {},
       zel::eUnspecifiedError, {certificates, refused(zel::eUnspecifiedError)}},
      {"the client throws at the certificates", [&] { script().Throw("SetCertificates"); }, {},
       zel::eUnspecifiedError, {certificates, refused(zel::eUnspecifiedError)}},
      {"std::exception", [&] { script().Throw("CreateClient"); }, {}, zel::eUnspecifiedError,
       {caught("std::exception scripted")}},
      {"std::bad_alloc", [&] { script().Do("CreateClient", []() -> ResultCode { throw std::bad_alloc(); }); },
       {}, zel::eOutOfMemory, {caught("std::bad_alloc std::bad_alloc")}},
      {"anything else", [&] { script().Do("GetInterface 0xccd50778", []() -> ResultCode { throw 42; }); }, {},
       zel::eUnspecifiedError, {caught("Unknown exception")}},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    EXPECT_EQ(Construct(row.plan), row.result);
    EXPECT_THAT(FailureLines(), ElementsAreArray(row.failureLines));
    Events();
    EXPECT_EQ(Send("{}"), zel::eNotInitialized);
    EXPECT_EQ(Set({}), zel::eNotInitialized);
    EndRow();
    EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
    EXPECT_THAT(Events(), IsEmpty()) << "a sender that was never constructed calls nothing";
    host.ExpectNothingHeld();
  }
}

TEST_F(LifecycleTest, TheLastFlushSurvivesAHostThatThrows) {
  Start();
  EXPECT_EQ(Send("{\"a\":1}"), zel::sOk);
  EXPECT_EQ(Send("{\"a\":2}"), zel::sOk);
  script().Throw("CreateProducer");
  Events();
  End();
  EXPECT_THAT(FailureLines(), ElementsAre(CaughtLine("QueuePendingData", "std::exception scripted")));
  EXPECT_THAT(Events(), ElementsAre("CancelTimer", "CreateProducer 0a 10240", "CreateProducer 0a 10240",
                                    "Push 0a {\"a\":2}"));
}

}  // namespace
}  // namespace veld_report::tests
