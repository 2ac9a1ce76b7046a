// Turns the kit's settings into the record that the module takes.
#pragma once

#include <string>
#include <vector>

#include "contract/sender.h"
#include "host/http/url_codings.h"
#include "host/kit/host_kit_options.h"
#include "types/vector.h"

namespace veld_report::host {

// The consumer name of triggers, which no endpoint may use.
inline constexpr char triggerConsumer[] = "veld_report.trigger";

// Owns everything that the record points to. For one thread; can't be copied.
class BuiltSettings {
 public:
  // Throws std::invalid_argument, which says which value is wrong and what it must be: an invalid url,
  // http where it isn't allowed, a reserved consumer name, certificates that can't be read, an unknown
  // compression, a limit that would overflow in the module.
  explicit BuiltSettings(const KitSettings& settings);
  BuiltSettings(const BuiltSettings&) = delete;
  BuiltSettings& operator=(const BuiltSettings&) = delete;

  const orvel::veld_report::SenderSettings& Record() const { return record_; }
  const std::vector<std::string>& Urls() const { return urls_; }
  const CodingTable& Codings() const { return codings_; }

 private:
  void AddEndpoint(const KitEndpoint& endpoint, std::uint64_t index);
  void AddCoding(const KitEndpoint& endpoint, std::uint64_t index);

  orvel::veld_report::SenderSettings record_;
  std::vector<std::string> urls_;
  CodingTable codings_;
  std::vector<zel::vector_t<HttpCertificate>> certificates_;
};

}  // namespace veld_report::host
