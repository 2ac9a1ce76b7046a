#include "server/page/record_members.h"

#include <simdjson.h>

namespace veld_report::server {
namespace {

namespace ondemand = simdjson::ondemand;

// Ends the walk.
class Enough {};

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace

// Reads no number as one: a record may have numbers that a whole parser refuses.
class MemberWalk::Impl {
 public:
  void Walk(std::string_view record, const std::function<bool(const RecordMember&)>& onMember) {
    padded_.assign(record).append(simdjson::SIMDJSON_PADDING, ' ');
    path_.clear();
    onMember_ = &onMember;
    try {
      ondemand::document document = parser_.iterate(padded_.data(), record.size(), padded_.size());
      Members(document.get_object(), 1);
    } catch (const Enough&) {
      // The caller has what it wanted.
    } catch (const simdjson::simdjson_error&) {
      // Not an object, or one that was cut.
    }
  }

 private:
  void Members(ondemand::object object, unsigned depth) {
    const std::size_t length = path_.size();
    for (ondemand::field field : object) {
      if (length != 0) path_ += '.';
      std::string_view key;
      // A lone surrogate can't be unescaped.
      if (field.unescaped_key().get(key) != simdjson::SUCCESS) key = "?";
      path_ += key;
      Value(field.value(), depth);
      path_.resize(length);
    }
  }

  void Value(ondemand::value value, unsigned depth) {
    switch (value.type()) {
      case ondemand::json_type::object:
        if (depth < maxDepth) {
          Members(value.get_object(), depth + 1);
        } else {
          HandOut(MemberType::object, value.get_object().value().raw_json());
        }
        break;
      case ondemand::json_type::array:
        HandOut(MemberType::array, value.get_array().value().raw_json());
        break;
      case ondemand::json_type::string: {
        const std::string_view raw = value.raw_json_token();
        std::string_view text;
        const bool valid = value.get_string().get(text) == simdjson::SUCCESS;
        HandOut(MemberType::text, valid ? text : raw);
        break;
      }
      case ondemand::json_type::number:
        HandOut(MemberType::number, Trimmed(value.raw_json_token()));
        break;
      case ondemand::json_type::boolean:
        HandOut(MemberType::boolean, Trimmed(value.raw_json_token()));
        break;
      case ondemand::json_type::null:
        HandOut(MemberType::null, "null");
        break;
    }
  }

  void HandOut(MemberType type, std::string_view value) {
    if (!(*onMember_)({path_, type, value})) throw Enough();
  }

  ondemand::parser parser_;
  std::string padded_, path_;
  const std::function<bool(const RecordMember&)>* onMember_ = nullptr;
};

MemberWalk::MemberWalk() : impl_(std::make_unique<Impl>()) {}
MemberWalk::~MemberWalk() = default;
void MemberWalk::Walk(std::string_view record, const std::function<bool(const RecordMember&)>& onMember) {
  impl_->Walk(record, onMember);
}

}  // namespace veld_report::server
