// SendStatistic: results, trace, keepers, the failures of serialisation, and the send timer that it arms.

#include <functional>
#include <new>

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
    const zel::AnyPtr data(&record, &fakes::textRecordDescriptor, keeper.Get());
    const ResultCode code =
        withConsumer ? sender->SendStatistic(zel::string(consumer), data) : sender->SendStatistic(data);
    EXPECT_EQ(keeper->References(), 2u);
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
  Fire();
  EXPECT_THAT(host.http->TakeSent().at(0).body,
              testing::HasSubstr("eyJhcnJheSI6W3sidGV4dCI6InNheSBcImFcIiJ9"));
}

TEST_F(SubmissionTest, ALineWhoseLevelIsOffCostsOneCall) {
  // The last one says yes and gives no buffer.
  for (const ResultCode refusal : {ResultCode(1), zel::eUnexpected, zel::sOk}) {
    host.tracer->highestLevel = 0;
    host.tracer->refusal = refusal;
    Start();
    host.tracer->TakeAsked();
    EXPECT_EQ(SendKept(true), zel::sOk);
    EXPECT_THAT(host.tracer->TakeAsked(), ElementsAre("700 512"));
    EXPECT_EQ(host.tracer->References(), 2u) << "no line holds it";
    End();
    EXPECT_THAT(Lines(), IsEmpty());
  }
}

TEST_F(SubmissionTest, ALongLineGrowsAndARefusedGrowthDropsWhatItHeld) {
  Start();
  const std::string name(600, 'n');
  const std::string head = Line("SendStatistic. Data with serId=42 was added to sending queue for consumer ");
  host.tracer->TakeAsked();
  EXPECT_EQ(SendKept(true, name), zel::sOk);
  EXPECT_THAT(Lines(), ElementsAre(head + name + ". Result is0"));
  EXPECT_THAT(host.tracer->TakeAsked(), ElementsAre("700 512", "grow 1024"));
  EXPECT_EQ(SendKept(true, std::string(2000, 'n')), zel::sOk);
  const std::string needed = std::to_string(head.size() - 4 + 2000);
  EXPECT_THAT(host.tracer->TakeAsked(),
              ElementsAre("700 512", "grow " + needed, testing::StartsWith("grow 4")));
  Lines();
  // "consumer " and the name are one piece, and after a refusal each piece asks again.
  host.tracer->refuseGrowth = true;
  EXPECT_EQ(SendKept(true, name), zel::sOk);
  EXPECT_THAT(host.tracer->TakeAsked(), ElementsAre("700 512", "grow 1024", "grow 11", "grow 1"));
  EXPECT_THAT(Lines(), ElementsAre("700 "));
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
    ResultCode result;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"no storage factory", [&] { host.locator->LackNth(zel::IJsonStorageFactory::iid, 1, someCode); },
       SystemError("Failed to get zel::IJsonStorageFactory", someCode, json + "(27)"), someCode},
      {"no storage", [&] { script().Fail("CreateJsonStorage", someCode); },
       SystemError("CreateJsonStorage", someCode, json + "(28)"), someCode},
      {"no serialiser", [&] { host.locator->LackNth(zel::IStorageSerializer2::iid, 1, someCode); },
       SystemError("Failed to get zel::IStorageSerializer2", someCode, storage + "(57)"), someCode},
      {"no context", [&] { serialize({}); }, SystemError("Serialize", someCode, storage + "(62)"), someCode},
      {"a location that can't be had", [&] { serialize({true, someCode, "Message", "signatures", 0}); },
       SystemError("Serialize", someCode, storage + "(62)"), someCode},
      {"a location with index 0", [&] { serialize({true, 0, "Message", "signatures", 0}); },
       SystemError("Serialize, Object name: Message, Field name: signatures, Index: 0", someCode,
       storage + "(62)"), someCode},
      {"a location without index", [&] { serialize({true, 1, "Message", "payload", none}); },
       SystemError("Serialize, Object name: Message, Field name: payload", someCode, storage + "(62)"),
       someCode},
      {"a name that doesn't convert", [&] { serialize({true, 0, "Message", "\xff", 3}); },
       SystemError("Serialize, Object name: Message, Field name: ", someCode, storage + "(62)"), someCode},
      {"the flush fails", [&] { script().Fail("Flush", someCode); },
       SystemError("IStorage::Flush", someCode, storage + "(66)"), someCode},
      {"std::exception", [&] { script().Throw("Serialize"); }, "std::exception scripted",
       zel::eUnspecifiedError},
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
                         std::to_string(row.result))));
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
  script().Fail("ArmTimer", someCode);
  EXPECT_EQ(SendKept(false), zel::sOk);
  EXPECT_EQ(Lines().back(), Line(added));
  Events();
  EXPECT_EQ(Set({}), zel::sOk);
  EXPECT_THAT(Events(), ElementsAre("SetCertificates 1"));
  EXPECT_EQ(SendKept(false), zel::sOk);
  EXPECT_TRUE(host.timer->Armed());
}

}  // namespace
}  // namespace veld_report::tests
