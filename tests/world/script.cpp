#include "tests/world/script.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace veld_report::world {
namespace {

using Names = std::vector<std::string>;

Names Words(const char* text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// In the order of their enumerators.
const Names opNames = Words(
    "CreateProducer CreateAckConsumer CreateQueueManager EnumerateQueues RemoveQueue Push Read "
    "Ack ReturnItem MakeRequestAsync Wait Cancel OnRequestFinished ArmTimer DisarmTimer "
    "CancelTimer IsBackgroundDisabled Sign Serialize CreateCalculator QueryCalculator Update "
    "Finish QueryCertificates SetCertificates CreateClient GetInterface CreateJsonStorage Flush "
    "AcquireBuffer CommitBuffer (end-of-reader) (completion) (entry) (totals) (excuse) AnyCall");
const Names entryNames = Words("Construct SendStatistic SetSettings Run Release (drain) CreateInstance");
const Names kindNames =
    Words("restart submit settings advance gate answer fault memory enter foreign settle");
constexpr int scriptedOps = static_cast<int>(Op::commitBuffer) + 1;

template <class E>
E Find(const std::string& name, const Names& names) {
  const auto found = std::ranges::find(names, name);
  if (found == names.end()) throw std::invalid_argument("unknown name '" + name + "'");
  return static_cast<E>(found - names.begin());
}

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : random_(seed) {}

  Script Make() {
    Script script{Restart()};
    if (script[0].a & (noQueues | noHttp)) script.push_back(Restart());
    const int steps = 20 + Below(180);
    // Some worlds are calm, so that rules which a fault would hide are seen too.
    const int trouble = Below(4);
    for (int i = 0; i < steps; ++i) Add(script, trouble);
    if (Below(2) == 0) script.push_back({.kind = Step::Kind::settle});
    return script;
  }

 private:
  using Kind = Step::Kind;

  int Below(int n) { return static_cast<int>(random_() % static_cast<std::uint64_t>(n)); }
  template <class T, std::size_t n>
  T Pick(const T (&values)[n]) {
    return values[random_() % n];
  }

  void Add(Script& script, int trouble) {
    const int draw = Below(100);
    if (draw < 34) {
      script.push_back({.kind = Kind::advance, .a = Pick({0, 1, 500, 1000, 1000, 1000, 1000, 2000, 12000})});
    } else if (draw < 64) {
      script.push_back({.kind = Kind::submit, .a = 1 + Below(4) * Below(3), .b = Size(), .c = Below(4)});
    } else if (draw < 76) {
      script.push_back(Answer());
    } else if (draw < 82) {
      script.push_back({.kind = Kind::settings, .settings = MakeSettings()});
    } else if (draw < 84) {
      script.push_back({.kind = Kind::gate, .a = Below(2)});
    } else if (draw < 86) {
      script.push_back({.kind = Kind::foreign, .a = Below(nameCount), .b = Below(4)});
    } else if (draw < 88) {
      script.push_back(Restart());
    } else if (trouble > 0) {
      script.push_back(Trouble());
    }
  }

  Step Trouble() {
    const int draw = Below(10);
    // A gate that closes while a walk goes on.
    if (draw == 0) return {.kind = Kind::fault, .op = Op::isBackgroundDisabled, .b = 1 + Below(8), .c = 1};
    if (draw < 5) {
      const auto op = static_cast<Op>(Below(scriptedOps));
      int result = Pick({-2147483579, -2147483550, -2147483575, -1, 1, 1, throws});
      // After a tracer that throws the model is lost; the sweep has those.
      if (op >= Op::acquireBuffer && result == throws) result = -1;
      return {.kind = Kind::fault, .op = op, .b = 1 + Below(5), .c = result};
    }
    if (draw < 8) return {.kind = Kind::memory, .a = Below(2), .b = 1 + Below(Pick({4, 30, 200}))};
    const auto entry = Pick({Entry::submit, Entry::settings, Entry::release, Entry::release});
    const Op op = Pick({Op::createProducer, Op::push, Op::read, Op::ack, Op::returnItem, Op::wait, Op::wait,
                        Op::makeRequest, Op::serialize, Op::isBackgroundDisabled, Op::createAckConsumer,
                        Op::enumerateQueues, Op::removeQueue, Op::setCertificates, Op::onRequestFinished});
    return {.kind = Kind::enter,
            .op = op,
            .a = static_cast<int>(entry),
            .b = 1 + Below(4),
            .c = Below(60),
            .settings = entry == Entry::settings ? MakeSettings() : Settings{}};
  }

  Step Restart() {
    int missing = 0;
    for (const int service : {noMode, noSignature, noNotification}) missing |= Below(3) == 0 ? service : 0;
    for (const int service : {noTimer, noQueues, noHttp}) missing |= Below(30) == 0 ? service : 0;
    return {
        .kind = Kind::restart, .a = missing, .b = Below(2), .c = Below(1 << 20), .settings = MakeSettings()};
  }

  Step Answer() {
    const int status =
        Pick({200, 200, 200, 200, 201, 204, 404, 500, 0, 1, 65535, -2147483567, -1, -2147483039});
    const int delay = Pick({0, 1, 1, 30, 700, 4999, 5000, 5001, 9000, 60000, -1});
    return {.kind = Kind::answer, .a = status, .b = delay, .c = Pick({0, 0, 0, 0, 1, -2147483039})};
  }

  int Size() {
    const int draw = Below(25);
    return draw < 2 ? 0 : draw < 19 ? 1 + Below(60) : draw < 24 ? Below(1200) : Below(5000);
  }

  Settings MakeSettings() {
    Settings settings;
    settings.packetLimit = Pick({0u, 1u, 2u, 2u, 3u, 5u, 100u});
    settings.queueLimitKb = Pick({0u, 1u, 1u, 2u, 3u, 10u, 10u, 4194304u, 4194305u});
    settings.sendTimeoutS = Pick({0u, 1u, 1u, 2u, 5u, 4294968u});
    settings.mismatch = Below(15) == 0;
    const int rows = Below(8) == 0 ? 0 : Below(25) == 0 ? 17 + Below(8) : 1 + Below(urlCount);
    const bool consumers = Below(2) == 0;
    for (int i = 0; i < rows; ++i) settings.rows.push_back({Below(urlCount), consumers ? Below(3) : 0});
    return settings;
  }

  std::mt19937_64 random_;
};

void Write(std::ostream& out, const Settings& settings) {
  out << ' ' << settings.packetLimit << ' ' << settings.queueLimitKb << ' ' << settings.sendTimeoutS << ' '
      << settings.mismatch;
  for (const Row& row : settings.rows) out << ' ' << static_cast<char>('a' + row.url) << row.consumer;
}

Settings ReadSettings(std::istream& in) {
  Settings settings;
  in >> settings.packetLimit >> settings.queueLimitKb >> settings.sendTimeoutS >> settings.mismatch;
  for (std::string row; in >> row;) {
    if (row.size() != 2 || row[0] < 'a' || row[0] >= 'a' + urlCount || row[1] < '0' || row[1] > '2') {
      throw std::invalid_argument("a row is a url's letter and a consumer's number: '" + row + "'");
    }
    settings.rows.push_back({row[0] - 'a', row[1] - '0'});
  }
  return settings;
}

bool HasOp(Step::Kind kind) { return kind == Step::Kind::fault || kind == Step::Kind::enter; }
bool HasSettings(const Step& step) {
  return step.kind == Step::Kind::restart || step.kind == Step::Kind::settings ||
         (step.kind == Step::Kind::enter && step.a == static_cast<int>(Entry::settings));
}

Step ReadStep(const std::string& line) {
  std::istringstream in(line);
  std::string word;
  in >> word;
  Step step{.kind = Find<Step::Kind>(word, kindNames)};
  if (HasOp(step.kind)) {
    in >> word;
    step.op = Find<Op>(word, opNames);
  }
  in >> step.a >> step.b >> step.c;
  if (!in) throw std::invalid_argument("not three numbers in '" + line + "'");
  if (HasSettings(step)) step.settings = ReadSettings(in);
  return step;
}

}  // namespace

const char* Name(Op op) { return opNames[static_cast<std::size_t>(op)].c_str(); }
const char* Name(Entry entry) { return entryNames[static_cast<std::size_t>(entry)].c_str(); }

bool Settings::HasConsumers() const {
  return mismatch || std::any_of(rows.begin(), rows.end(), [](const Row& row) { return row.consumer != 0; });
}

Script MakeScript(std::uint64_t seed) { return Generator(seed).Make(); }

std::string ToText(const Script& script) {
  std::ostringstream out;
  for (const Step& step : script) {
    out << kindNames[static_cast<std::size_t>(step.kind)];
    if (HasOp(step.kind)) out << ' ' << Name(step.op);
    out << ' ' << step.a << ' ' << step.b << ' ' << step.c;
    if (HasSettings(step)) Write(out, step.settings);
    out << '\n';
  }
  return out.str();
}

Script FromText(const std::string& text) {
  Script script;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != '#') script.push_back(ReadStep(line));
  }
  return script;
}

}  // namespace veld_report::world
