// A record over TLS to a server that the system's certificates don't know.
// Usage: tls STORE URL TRUST...
// Each TRUST is a file with CA certificates (PEM), or the pin of the server's key, sha256//BASE64.
#include <veld_report/reporter.h>

#include <fstream>
#include <iostream>
#include <iterator>

namespace {

std::string TrustOf(const std::string& argument) {
  if (argument.starts_with("sha256//")) return argument;
  std::ifstream file(argument);
  if (!file) throw std::runtime_error(argument + " can't be read");
  return {std::istreambuf_iterator<char>(file), {}};
}

void Run(int argc, char** argv) {
  veld_report::Endpoint server{.url = argv[2]};
  for (int i = 3; i < argc; ++i) server.certificates.push_back(TrustOf(argv[i]));
  veld_report::Reporter reporter({.store = argv[1], .endpoints = {server}});
  reporter.SendJson(R"({"event":"started"})");
  if (reporter.Flush(std::chrono::seconds(5))) return;
  // Why not: a certificate that isn't trusted, for instance.
  throw std::runtime_error("not delivered yet: " + reporter.Stats().endpoints.front().lastError);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  try {
    Run(argc, argv);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "tls: " << error.what() << '\n';
    return 1;
  }
}
