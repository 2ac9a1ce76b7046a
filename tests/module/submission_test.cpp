// SendStatistic: results, trace, keepers, the failures of serialisation, and the send timer that it arms.

#include <functional>
#include <new>

#include "contract/timer.h"
#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

class Keeper final : public fakes::FakeObject<zel::IObject> {
 public:
  explicit Keeper(fakes::FakeWorld& world) : FakeObject(world, "Keeper") {}
};

class SubmissionTest : public SenderTest {
 protected:
  // By the form with or without a consumer, with a keeper whose count must be what it was.
  ResultCode SendKept(bool withConsumer, std::string_view consumer = {}) {
    zel::Ref<Keeper> keeper = fakes::MakeFake<Keeper>(host.world);
    fakes::TextRecord record{zel::string("say \"a\"")};
    ResultCode code;
    {
      const zel::AnyPtr data(&record, &fakes::textRecordDescriptor, keeper.Get());
      code = withConsumer ? sender->SendStatistic(zel::string(consumer), data) : sender->SendStatistic(data);
      EXPECT_EQ(keeper->References(), 2u);
    }
    EXPECT_EQ(keeper->References(), 1u);
    return code;
  }
};

const char added[] =
    "SendStatistic. Data with serId=42 was added to sending queue for all consumers. Result is0";

TEST_F(SubmissionTest, ARecordIsSerialisedAtOnceAndArmsTheTimerEachTime) {
  Start();
  for (const bool withConsumer : {true, false}) {
    EXPECT_EQ(SendKept(withConsumer), zel::sOk);
    EXPECT_THAT(host.locator->TakeLookUps(), ElementsAre(0x2d52630a, 0x7cc64bff));
    EXPECT_THAT(Lines(), ElementsAre(Line(added)));
    EXPECT_THAT(Events(), ElementsAre("ArmTimer 1000"));
  }
  EXPECT_EQ(SendKept(true, "abc"), zel::sOk);
  EXPECT_THAT(Lines(), ElementsAre(Line("SendStatistic. Data with serId=42 was added to sending queue for "
                                        "consumer abc. Result is0")));
  EXPECT_THAT(Events(), ElementsAre("ArmTimer 1000"));
  Fire();
  EXPECT_THAT(host.queues->Items(QueueName('a')), IsEmpty()) << "delivered";
  EXPECT_THAT(host.http->TakeSent().at(0).body,
              testing::HasSubstr("eyJhcnJheSI6W3sidGV4dCI6InNheSBcImFcIiJ9"));
}

TEST_F(SubmissionTest, BeforeConstructAndAfterAFailedOneEverythingIsRefused) {
  ASSERT_EQ(Create(), zel::sOk);
  for (int round = 0; round < 2; ++round) {
    Lines();
    EXPECT_EQ(SendKept(true), zel::eNotInitialized);
    EXPECT_EQ(SendKept(false), zel::eNotInitialized);
    EXPECT_THAT(Lines(), IsEmpty());
    host.locator->Lack(orvel::IQueueFactory::iid);
    EXPECT_EQ(Construct({}), zel::eNotFound);
  }
}

TEST_F(SubmissionTest, ALineWhoseLevelIsOffCostsOneCall) {
  for (const ResultCode refusal : {1, static_cast<int>(zel::eUnexpected)}) {
    host.tracer->highestLevel = 0;
    host.tracer->refusal = refusal;
    Start();
    const int before = host.tracer->Asked(700);
    EXPECT_EQ(SendKept(true), zel::sOk);
    EXPECT_EQ(host.tracer->Asked(700), before + 1);
    host.tracer->refusal = 1;
    script().Fail("Serialize", someCode);
    EXPECT_EQ(SendKept(true), zel::sOk);
    EXPECT_EQ(host.tracer->Asked(300), 1 + (refusal != 1));
    End();
    EXPECT_THAT(Lines(), IsEmpty());
  }
}

TEST_F(SubmissionTest, ALongLineGrowsAndARefusedGrowthDropsWhatItHeld) {
  Start();
  const std::string name(600, 'n');
  const std::string head = Line("SendStatistic. Data with serId=42 was added to sending queue for consumer ");
  EXPECT_EQ(SendKept(true, name), zel::sOk);
  EXPECT_THAT(Lines(), ElementsAre(head + name + ". Result is0"));
  EXPECT_EQ(host.tracer->Asked(zel::ITracer::growLevel), 1);
  // "consumer " and the name are one piece, and after a refusal each piece asks again.
  host.tracer->refuseGrowth = true;
  EXPECT_EQ(SendKept(true, name), zel::sOk);
  EXPECT_EQ(host.tracer->Asked(zel::ITracer::growLevel), 4);
  EXPECT_THAT(Lines(), ElementsAre("700 "));
  host.tracer->refuseGrowth = false;
  host.tracer->storeNoBuffer = true;
  EXPECT_EQ(SendKept(true, name), zel::sOk);
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(host.tracer->References(), 2u) << "a tracer that says yes without a buffer isn't held";
}

TEST_F(SubmissionTest, AFailedSerialisationIsToldInTheTraceOnly) {
  const std::string json = "orvel_tools/json_helpers";
  const std::string storage = "orvel_tools/storage_serialize_helpers";
  constexpr std::uint32_t none = zel::SerializeErrorLocation::noIndex;
  const auto serialize = [&](fakes::SerializeContext context) {
    host.serializer->context = std::move(context);
    script().Fail("Serialize", someCode);
  };
  struct Row {
    const char* what;
    std::function<void()> script;
    std::string rest;
    std::string result;
  };
  const std::string code = std::to_string(someCode);
  // clang-format off
  const std::vector<Row> rows = {
      {"no storage factory", [&] { host.locator->LackNth(zel::IJsonStorageFactory::iid, 1, someCode); },
       SystemError("Failed to get zel::IJsonStorageFactory", someCode, json + "(27)"), code},
      {"no storage", [&] { script().Fail("CreateJsonStorage", someCode); }, SystemError("CreateJsonStorage",
       someCode, json + "(28)"), code},
      {"no serialiser", [&] { host.locator->LackNth(zel::IStorageSerializer2::iid, 1, someCode); },
       SystemError("Failed to get zel::IStorageSerializer2", someCode, storage + "(57)"), code},
      {"no context", [&] { serialize({}); }, SystemError("Serialize", someCode, storage + "(62)"), code},
      {"a context without location", [&] { serialize({.given = true, .offersLocation = false}); },
       SystemError("Serialize", someCode, storage + "(62)"), code},
      {"a location that can't be had", [&] { serialize({true, true, someCode, "Message", "signatures", 0}); },
       SystemError("Serialize", someCode, storage + "(62)"), code},
      {"a location with index 0", [&] { serialize({true, true, 0, "Message", "signatures", 0}); },
       SystemError("Serialize, Object name: Message, Field name: signatures, Index: 0", someCode,
       storage + "(62)"), code},
      {"a location without index", [&] { serialize({true, true, 1, "Message", "payload", none}); },
       SystemError("Serialize, Object name: Message, Field name: payload", someCode, storage + "(62)"), code},
      {"a name that doesn't convert", [&] { serialize({true, true, 0, "Message", "\xff", 3}); },
       SystemError("Serialize, Object name: Message, Field name: ", someCode, storage + "(62)"), code},
      {"the flush fails", [&] { script().Fail("Flush", someCode); }, SystemError("IStorage::Flush", someCode,
       storage + "(66)"), code},
      {"std::exception", [&] { script().Throw("Serialize"); }, "std::exception scripted",
       std::to_string(zel::eUnspecifiedError)},
      {"std::bad_alloc", [&] { script().Do("CreateJsonStorage", []() -> ResultCode { throw std::bad_alloc();
       }); }, "std::bad_alloc std::bad_alloc", std::to_string(zel::eOutOfMemory)},
  };
  // clang-format on
  Start();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    EXPECT_EQ(SendKept(true, "abc"), zel::sOk);
    EXPECT_THAT(
        Lines(),
        ElementsAre(CaughtLine("SendStatistic", row.rest),
                    Line("SendStatistic. Data with serId=42 wasn't added to sending queue for consumer "
                         "abc. Result is" +
                         row.result)));
    EXPECT_THAT(Events(), IsEmpty()) << "no timer";
    script().Clear();
  }
  // A positive result is a success.
  script().Fail("Flush", zel::sFalse);
  EXPECT_EQ(SendKept(false), zel::sOk);
  EXPECT_THAT(Lines(), ElementsAre(Line(added)));
  Fire();
  EXPECT_THAT(Events({"Push"}), ElementsAre("Push 0a {\"text\":\"say \\\"a\\\"\"}")) << "only the last one";
}

TEST_F(SubmissionTest, ASubmissionDuringACycleKeepsItsOwnDelay) {
  Start();
  host.http->usual = HttpAnswer::Status(500);
  script().Do("Wait", [&] { return Send("{\"b\":2}"); });
  Send("{\"a\":1}");
  Fire();
  EXPECT_THAT(Events({"ArmTimer", "DisarmTimer", "Run"}),
              ElementsAre("ArmTimer 1000", "Run", "DisarmTimer", "ArmTimer 1000"))
      << "nothing to arm with the timeout of the settings";
  Fire();
  EXPECT_THAT(Events({"ArmTimer"}), ElementsAre("ArmTimer 7000"));
}

TEST_F(SubmissionTest, ATimerThatCannotBeArmedIsTriedAgainBySubmissionsOnly) {
  Start({}, true);
  script().Fail("ArmTimer", someCode, 1, Script::always);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(SendKept(false), zel::sOk);
    EXPECT_EQ(Lines().back(), Line(added));
  }
  Events();
  EXPECT_EQ(Set({}), zel::sOk);
  EXPECT_THAT(Events(), ElementsAre("SetCertificates 1"));
  script().Clear();
  EXPECT_EQ(SendKept(false), zel::sOk);
  EXPECT_TRUE(host.timer->Armed());
}

TEST_F(SubmissionTest, TheSinkIsNotCounted) {
  Start();
  Nudge();
  zel::IRunnable* sink = host.timer->LastSink();
  EXPECT_EQ(sink->AddRef(), 0u);
  EXPECT_EQ(sink->Release(), 0u);
  EXPECT_EQ(sink->Release(), 0u);
  for (const zel::InterfaceId id : {0u, zel::IRunnable::iid}) {
    void* out = nullptr;
    EXPECT_EQ(sink->QueryInterface(id, &out), zel::sOk);
    EXPECT_EQ(out, sink);
  }
  void* out = sink;
  EXPECT_EQ(sink->QueryInterface(IVeldReportSender::iid, &out), zel::eInterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
}

}  // namespace
}  // namespace veld_report::tests
