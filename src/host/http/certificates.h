// The certificates that urls bring along, checked and in the form that libcurl takes.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "contract/http.h"

namespace veld_report::host {

// One url's. At least one of the two isn't empty.
struct CertificateSet {
  std::string caPem;  // all CA certificates, one behind the other
  std::string pins;   // "sha256//...;sha256//..."
};

using CertificateTable = std::map<std::string, CertificateSet>;

// Reads one element after another. Throws std::invalid_argument, with the number of the element, for one that
// is neither a PEM text with certificates alone nor a pin.
CertificateSet ReadCertificates(const std::vector<std::string_view>& elements);

// Reads the table of SetCertificates. Urls without certificates have no row in the result. Throws
// std::invalid_argument, also for certificates without a url to go with.
CertificateTable ReadCertificateTable(const network_services::CertificateRange& table,
                                      const std::vector<std::string>& urls);

}  // namespace veld_report::host
