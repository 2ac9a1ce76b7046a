// The certificates of urls, checked and in libcurl's form.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "contract/http.h"

namespace veld_report::host {

// The certificates of one url. At least one of the two isn't empty.
struct CertificateSet {
  std::string caPem;  // all CA certificates, concatenated
  std::string pins;   // "sha256//...;sha256//..."
};

using CertificateTable = std::map<std::string, CertificateSet>;

// Reads the elements in order. If one is neither a PEM text with only certificates nor a pin, it throws
// std::invalid_argument with the number of the element.
CertificateSet ReadCertificates(const std::vector<std::string_view>& elements);

// Reads the table of SetCertificates. Urls without certificates have no row in the result. Throws
// std::invalid_argument, also if there are certificates without a url.
CertificateTable ReadCertificateTable(const network_services::CertificateRange& table,
                                      const std::vector<std::string>& urls);

}  // namespace veld_report::host
