// From the exports to a live sender and back: factory, creation, Construct, the last Release.

#include <functional>
#include <stdexcept>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::senderClassId;
using zel::IObjectFactory;

constexpr zel::InterfaceId unknownInterface = 0x12345678;

class LifecycleTest : public SenderTest {
 protected:
  zel::Ref<IObjectFactory> Factory(zel::IServiceLocator* locator) {
    zel::Ref<zel::IObject> first;
    EXPECT_EQ(module.getObjectFactory(locator, senderClassId, first.Out()), zel::sOk);
    return zel::Ref<IObjectFactory>(static_cast<IObjectFactory*>(first.Get()));
  }
};

TEST_F(LifecycleTest, AnyOtherClassIsNotImplemented) {
  for (const std::uint32_t classId : {0u, senderClassId - 1, IObjectFactory::iid}) {
    for (zel::IServiceLocator* locator : {static_cast<zel::IServiceLocator*>(nullptr),
                                          static_cast<zel::IServiceLocator*>(host.locator.Get())}) {
      zel::IObject* out = host.mode.Get();
      EXPECT_EQ(module.getObjectFactory(locator, classId, &out), zel::eNotImplemented);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(module.canUnload(), zel::sOk);
    }
  }
}

TEST_F(LifecycleTest, EachCallMakesAFactoryOfItsOwn) {
  auto one = Factory(host.locator.Get());
  auto two = Factory(nullptr);
  EXPECT_NE(one.Get(), two.Get());
  EXPECT_EQ(host.locator->References(), 1u) << "a factory keeps no locator";
  zel::Ref<IObjectFactory> same;
  EXPECT_EQ(one->QueryInterface(IObjectFactory::iid, same.OutVoid()), zel::sOk);
  EXPECT_EQ(same.Get(), one.Get());
  EXPECT_EQ(one->QueryInterface(0, same.OutVoid()), zel::sOk);
  EXPECT_EQ(same.Get(), one.Get());
  void* other = one.Get();
  EXPECT_EQ(one->QueryInterface(IVeldReportSender::iid, &other), zel::eInterfaceNotSupported);
  EXPECT_EQ(other, nullptr);
  same.Reset();
  EXPECT_EQ(one->AddRef(), 2u);
  EXPECT_EQ(one->Release(), 1u);
  one.Reset();
  EXPECT_EQ(module.canUnload(), zel::sFalse) << "the second factory lives";
  two.Reset();
  EXPECT_EQ(module.canUnload(), zel::sOk);
}

TEST_F(LifecycleTest, TheThreeInterfacesAreOneObject) {
  constexpr zel::InterfaceId ids[] = {IVeldReportSender::iid, IVeldReportSenderConstruct::iid,
                                      IVeldReportSenderSettings::iid};
  for (const zel::InterfaceId made : {0u, ids[0], ids[1], ids[2]}) {
    zel::Ref<zel::IObject> object;
    ASSERT_EQ(Factory(host.locator.Get())->CreateInstance(host.locator.Get(), made, object.OutVoid()), 0);
    zel::Ref<zel::IObject> first;
    ASSERT_EQ(object->QueryInterface(0, first.OutVoid()), zel::sOk);
    for (const zel::InterfaceId asked : ids) {
      zel::Ref<zel::IObject> from;
      zel::Ref<zel::IObject> fromFirst;
      EXPECT_EQ(object->QueryInterface(asked, from.OutVoid()), zel::sOk);
      EXPECT_EQ(first->QueryInterface(asked, fromFirst.OutVoid()), zel::sOk);
      EXPECT_EQ(from.Get(), fromFirst.Get());
      EXPECT_EQ(from.Get() == first.Get(), asked == IVeldReportSender::iid);
      EXPECT_EQ(from->AddRef(), 5u) << "one count for all";
      EXPECT_EQ(first->Release(), 4u);
    }
    void* unknown = object.Get();
    EXPECT_EQ(object->QueryInterface(unknownInterface, &unknown), zel::eInterfaceNotSupported);
    EXPECT_EQ(unknown, nullptr);
  }
}

TEST_F(LifecycleTest, ACreatedSenderGoesWithoutACallToTheHost) {
  ASSERT_EQ(Create(), zel::sOk);
  EXPECT_THAT(host.locator->TakeLookUps(), ElementsAre(0x9cca5603, 0x9cca5603, 0x6ef3329b, 0x898b9c28));
  EXPECT_EQ(host.locator->References(), 2u);
  EXPECT_EQ(module.canUnload(), zel::sFalse);
  EXPECT_EQ(Send("{}"), zel::eNotInitialized);
  EXPECT_EQ(Set({}), zel::eNotInitialized);
  EXPECT_EQ(settings->ReservedSettingsOperation(), zel::eNotImplemented);
  End();
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
  EXPECT_THAT(Events(), IsEmpty());
  host.ExpectNothingHeld();
}

TEST_F(LifecycleTest, AnUnknownInterfaceDestroysTheSenderAgain) {
  auto factory = Factory(host.locator.Get());
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(host.locator.Get(), unknownInterface, &out), zel::eInterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
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
      {"no tracer at first", [&] { host.locator->LackNth(zel::ITracer::iid, 1, someCode); }, someCode,
       {missing + "6ef3329b" + at}},
      {"no hash", [&] { host.locator->LackNth(crypto::hash::IHashCalculatorFactory::iid, 1, someCode); },
       someCode, {missing + "898b9c28" + at}},
      {"no memory", [&] { host.allocator->FailNth(1); }, zel::eOutOfMemory, {prefix + "std::bad_alloc"}},
      {"a service throws", [&] { script().Throw("GetInterface 0x898b9c28"); }, zel::eUnknownException,
       {prefix + "scripted"}},
      {"no tracer at all", [&] { host.locator->Lack(zel::ITracer::iid, someCode); }, someCode, {}},
  };
  // clang-format on
  auto factory = Factory(host.locator.Get());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    void* out = &out;
    EXPECT_EQ(factory->CreateInstance(host.locator.Get(), 0, &out), row.result);
    EXPECT_EQ(out, &out) << "untouched";
    EXPECT_THAT(Lines(), ElementsAreArray(row.lines));
    host.ExpectNothingHeld();
    script().Clear();
  }
  factory.Reset();
  EXPECT_EQ(module.canUnload(), zel::sOk);
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
  for (const fakes::LedgerEntry* held : std::initializer_list<const fakes::LedgerEntry*>{
           host.tracer.Get(), host.locator.Get(), host.hash.Get(), host.queues.Get(), host.http.Get(),
           host.timer.Get(), host.mode.Get(), host.signature.Get(), host.notification.Get()}) {
    EXPECT_EQ(held->References(), 2u) << held->Name();
  }
  EXPECT_EQ(host.httpFactory->References(), 1u);
  End();
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called")));
  EXPECT_THAT(Events(), ElementsAre("CancelTimer"));
}

TEST_F(LifecycleTest, OptionalServicesAreMissedInTheTraceOnly) {
  for (const bool traced : {true, false}) {
    host.tracer->highestLevel = traced ? 700 : 300;
    Lines();
    for (const zel::InterfaceId missing : {orvel::IExecutionModeProvider::iid, orvel::ISignatureProvider::iid,
                                           orvel::IRequestsNotification::iid, zel::ITimerService::iid}) {
      host.locator->Lack(missing, someCode);
    }
    ASSERT_EQ(Construct({}), zel::sOk);
    const Strings expected = {Line(networkLine), Line("IExecutionModeProvider interface is not available!"),
                              Line("Cann't get ISignatureProvider iface"),
                              Line("Cann't get IRequestsNotification iface"), Line(settingsLine)};
    EXPECT_THAT(Lines(), ElementsAreArray(traced ? expected : Strings()));
    Events();
    // Without a timer nothing runs, and only the last flush takes what was submitted.
    EXPECT_EQ(Send("{\"a\":1}"), zel::sOk);
    EXPECT_THAT(Events(), IsEmpty());
    End();
    EXPECT_THAT(Events(), ElementsAre("CreateProducer 0a 10240", "Push 0a {\"a\":1}"));
    script().Clear();
  }
}

TEST_F(LifecycleTest, ConstructFails) {
  const std::string certificates = "300 veld_rep\tCann't update certificates for urls";
  const std::string refused = "SetSettings failed. Check component settings";
  struct Row {
    const char* what;
    std::function<void()> script;
    Plan plan;
    ResultCode result;
    Strings failureLines;  // of level 300
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"no queue factory", [&] { host.locator->Lack(orvel::IQueueFactory::iid, someCode); }, {}, someCode,
       {CaughtLine("Construct", SystemError("IQueueFactory not available", someCode, "697"))}},
      {"no http factory", [&] { host.locator->Lack(network_services::IHttpClientFactory::iid, someCode); },
       {}, someCode, {CaughtLine("Construct", SystemError("Cann't get IHttpClientFactory iface", someCode,
       "700"))}},
      {"no client", [&] { script().Fail("CreateClient", someCode); }, {}, someCode, {CaughtLine("Construct",
       SystemError("Cann't create IHttpClient", someCode, "701"))}},
      {"bad settings", [] {}, {.consumers = {"x", "y"}}, zel::eInvalidArgument, {CaughtLine("Construct",
       SystemError(refused, zel::eInvalidArgument, "739"))}},
      {"no certificates interface", [&] { script().Fail("Query HttpClient", someCode); }, {},
       zel::eUnspecifiedError, {certificates, CaughtLine("Construct", SystemError(refused,
       zel::eUnspecifiedError, "739"))}},
      {"certificates refused", [&] { script().Fail("SetCertificates", someCode); }, {},
       zel::eUnspecifiedError, {certificates, CaughtLine("Construct", SystemError(refused,
       zel::eUnspecifiedError, "739"))}},
      {"no hash calculator", [&] { script().Fail("CreateCalculator", someCode); }, {}, someCode,
       {CaughtLine("Construct", SystemError(refused, someCode, "739"))}},
      {"std::exception", [&] { script().Throw("SetCertificates"); }, {}, zel::eUnspecifiedError,
       {CaughtLine("Construct", "std::exception scripted")}},
      {"std::bad_alloc", [&] { script().Do("CreateClient", []() -> ResultCode { throw std::bad_alloc(); }); },
       {}, zel::eOutOfMemory, {CaughtLine("Construct", "std::bad_alloc std::bad_alloc")}},
      {"std::length_error counts as std::exception", [&] { script().Do("CreateClient",
       []() -> ResultCode { throw std::length_error("long"); }); }, {}, zel::eUnspecifiedError,
       {CaughtLine("Construct", "std::exception long")}},
      {"anything else", [&] { script().Do("GetInterface 0xccd50778", []() -> ResultCode { throw 42; }); }, {},
       zel::eUnspecifiedError, {CaughtLine("Construct", "Unknown exception")}},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    EXPECT_EQ(Construct(row.plan), row.result);
    Strings lines = Lines();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("700"); });
    EXPECT_THAT(lines, ElementsAreArray(row.failureLines));
    script().Clear();
    Events();
    EXPECT_EQ(Send("{}"), zel::eNotInitialized);
    EXPECT_EQ(Set({}), zel::eNotInitialized);
    EXPECT_THAT(Lines(), IsEmpty());
    End();
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
  Lines();
  Events();
  End();
  EXPECT_THAT(Lines(), ElementsAre(Line("FinalRelease called"),
                                   CaughtLine("QueuePendingData", "std::exception scripted")));
  EXPECT_THAT(Events(), ElementsAre("CancelTimer", "CreateProducer 0a 10240", "CreateProducer 0a 10240",
                                    "Push 0a {\"a\":2}"));
}

TEST_F(LifecycleTest, SendersOfOneFactoryAreIndependent) {
  Start();
  zel::Ref<IVeldReportSender> other;
  ASSERT_EQ(Factory(host.locator.Get())->CreateInstance(host.locator.Get(), 0, other.OutVoid()), 0);
  fakes::TextRecord record;
  EXPECT_EQ(other->SendStatistic(zel::AnyPtr(&record, &fakes::rawRecordDescriptor)), zel::eNotInitialized);
  EXPECT_EQ(Send("{}"), zel::sOk);
  other.Reset();
  EXPECT_EQ(Send("{}"), zel::sOk);
}

}  // namespace
}  // namespace veld_report::tests
