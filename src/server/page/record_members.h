// Walks over the members of a record, those of inner objects with their path ("order.price").
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace veld_report::server {

enum class MemberType { text, number, boolean, null, array, object };

struct RecordMember {
  std::string_view path;
  MemberType type;
  // Of a text its characters, of the rest the JSON; of arrays and of objects that lie too deep its first
  // bytes.
  std::string_view value;
};

// Threads: one at a time.
class MemberWalk {
 public:
  static constexpr unsigned maxDepth = 4;  // an object deeper than this is one member

  MemberWalk();
  ~MemberWalk();
  MemberWalk(const MemberWalk&) = delete;
  MemberWalk& operator=(const MemberWalk&) = delete;

  // Calls `onMember` for each member until it returns false. `record`: one valid JSON text; of one that isn't
  // an object, and of one that was cut, the members before the fault are handed out.
  void Walk(std::string_view record, const std::function<bool(const RecordMember&)>& onMember);

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace veld_report::server
