// The note of what a sender knows of its urls.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "host/base/host_object.h"
#include "host/kit/url_states.h"
#include "tests/common/temporary_folder.h"

namespace veld_report::host {
namespace {

class FailingUrls final : public HostObject<HttpClientFactory> {
 public:
  zel::ResultCode CreateClient(network_services::IHttpClient**) override { return zel::eNotImplemented; }
  void AnnounceUrls(std::vector<std::string>) override {}
  void AllowRequests(bool) override {}
  void SetCodings(CodingTable) override {}
  std::vector<HttpClientState> States() const override { return {}; }
  std::optional<HttpClientState> StateOf(const std::string& url) const override {
    return HttpClientState{.url = url, .lastError = "no luck", .lastStatus = 500, .failures = failures};
  }
  std::chrono::milliseconds HeldBackFor(const std::string&) const override { return {}; }
  std::uint16_t TakeRefusal(const std::string&) override { return 0; }
  void ExpectRefusal(const std::string&) override {}
  void NoteStandingBack(const std::string&, std::uint16_t) override {}

  std::uint32_t failures = 0;
};

TEST(UrlStates, ThousandsOfFailingUrlsWriteLittleAndReadTrue) {
  const tests::TemporaryFolder folder;
  const auto file = folder.Path() / "urls.state";
  std::vector<std::string> urls;
  for (int i = 0; i < 2000; ++i) urls.push_back("http://127.0.0.1/" + std::to_string(i));
  const auto http = MakeObject<FailingUrls>();
  UrlStateFile states(folder.Path());
  states.SetUrls(urls);
  std::size_t rewrites = 0;
  std::uintmax_t size = std::filesystem::file_size(file);
  for (http->failures = 1; http->failures <= 3; ++http->failures) {
    for (const std::string& url : urls) {
      states.Update(url, *http);
      const std::uintmax_t before = std::exchange(size, std::filesystem::file_size(file));
      rewrites += size <= before || size - before >= 200;
    }
  }
  EXPECT_LE(rewrites, 8u);
  EXPECT_LT(size, 3u * 2000 * 100);
  // A line that is still being written doesn't count.
  std::ofstream(file, std::ios::app) << UrlStateFile::Read(folder.Path())[0].queueName << "\t0\t200\t0\thttp";
  const auto read = UrlStateFile::Read(folder.Path());
  ASSERT_EQ(read.size(), urls.size());
  for (std::size_t i = 0; i < read.size(); ++i) {
    EXPECT_EQ(read[i].http.url, urls[i]);
    EXPECT_EQ(read[i].http.failures, 3u);
  }
}

}  // namespace
}  // namespace veld_report::host
