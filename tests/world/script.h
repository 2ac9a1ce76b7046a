// A script: everything that happens in one world, a step a line. It comes from a seed or from a file, and the
// same script always gives the same world.
//
// Faults, answers and entries stand in the script as steps of their own that wait for the call they are meant
// for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace veld_report::world {

// The calls that a host sees, and (from readerEnd on) what else a recording holds.
enum class Op : std::uint8_t {
  createProducer,
  createAckConsumer,
  createQueueManager,
  enumerateQueues,
  removeQueue,
  push,
  read,
  ack,
  returnItem,
  makeRequest,
  wait,
  cancel,
  onRequestFinished,
  armTimer,
  disarmTimer,
  cancelTimer,
  isBackgroundDisabled,
  sign,
  serialize,
  createCalculator,
  queryCalculator,
  update,
  finish,
  queryCertificates,
  setCertificates,
  createClient,
  lookUp,
  createStorage,
  flush,
  acquireBuffer,
  commitBuffer,
  readerEnd,  // the last reference to a reader has gone
  complete,   // the client reports to a callback
  enter,      // somebody calls the module
  totals,     // the line that ends a cycle
  excuse,     // something failed that no call of a cycle shows: memory, a trace line, or a service of the
              // serialisation
  returned,   // the call that began with `enter` has ended
};
// In a fault: any call.
inline constexpr Op anyOp = Op::returned;
const char* Name(Op op);

// Who calls the module.
enum class Entry : std::uint8_t { construct, submit, settings, run, release, drain, create };
const char* Name(Entry entry);

// A result that stands for an exception.
inline constexpr std::int32_t throws = 2;
inline constexpr int urlCount = 4;
inline constexpr int nameCount = 8;

struct Row {
  int url = 0;       // 0 to 3
  int consumer = 0;  // 0: none; 1, 2: "x", "y"
};

struct Settings {
  std::uint32_t packetLimit = 1;
  std::uint32_t queueLimitKb = 10;
  std::uint32_t sendTimeoutS = 1;
  bool mismatch = false;  // one consumer too many
  std::vector<Row> rows;
  bool HasConsumers() const;
};

struct Step {
  enum class Kind : std::uint8_t {
    restart,   // a: services left out (Missing), b: trace, and 2: a brief course, c: seed of the walks; odd:
               // arming an armed timer restarts it; with `settings`
    submit,    // a: count, b: bytes each, c: consumer, 3 is one that no row has
    settings,  // `settings`
    advance,   // a: milliseconds
    gate,      // a: closed or open
    answer,    // for one coming request. a: status, or the code of a failure, 1 or negative; b: delay in
               // milliseconds, -1 for inside MakeRequestAsync; c: result of Wait
    fault,     // at the bth call of `op` from here: result c; a: and at every later one
    memory,    // a: 0 host's allocator, 1 process heap; the bth allocation of the module from here gives null
    enter,     // at the bth call of `op` from here another thread comes in. a: Entry submit, settings or
               // release; c: bytes of a submission; with `settings`
    foreign,   // a: name, b: count of items that somebody else puts there
    settle,    // all obstacles go, and then all items have to
  };
  Kind kind = Kind::advance;
  Op op = Op::push;
  int a = 0;
  int b = 0;
  int c = 0;
  Settings settings{};
};

// What a host may lack; bits of `a` of a restart.
enum Missing : int {
  noTimer = 1,
  noMode = 2,
  noSignature = 4,
  noNotification = 8,
  noQueues = 16,
  noHttp = 32,
  cleanUpThrows = 64,  // Free and Release throw, their work done; the module may not notice
};

using Script = std::vector<Step>;

Script MakeScript(std::uint64_t seed);
std::string ToText(const Script& script);
// Throws std::invalid_argument with the line that it doesn't understand.
Script FromText(const std::string& text);

}  // namespace veld_report::world
