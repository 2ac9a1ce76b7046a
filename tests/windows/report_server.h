// A report server for tests on Windows, where the project's isn't built: it takes every message that passes
// the project's own check, and appends the items to a file.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

#include "server/body_decoder.h"
#include "server/message_check.h"
#include "tests/host/scripted_server.h"

namespace veld_report::server {

class ReportServer {
 public:
  // `port`: 0 is any free one.
  ReportServer(const std::string& file, std::uint16_t port)
      : file_(file, std::ios::binary | std::ios::app),
        server_([this](const tests::ScriptedRequest& request) { return Answer(request); }, nullptr, port) {}

  std::uint16_t Port() const { return server_.Port(); }
  std::string Url() const { return server_.Url(); }
  std::uint64_t StoredItems() const { return storedItems_; }

 private:
  tests::ScriptedReply Answer(const tests::ScriptedRequest& request) {
    constexpr std::size_t limitBytes = 64 << 20;
    const auto has = [&](const char* coding) {
      return request.head.find(std::string("Content-Encoding: ") + coding) != std::string::npos;
    };
    const BodyCoding coding = has("gzip")   ? BodyCoding::gzip
                              : has("zstd") ? BodyCoding::zstd
                                            : BodyCoding::identity;
    DecodedBody body{.text = request.body};
    if (coding != BodyCoding::identity)
      body = DecodeBody(coding, request.body, limitBytes, [](std::size_t) { return true; });
    const MessageContent message = CheckMessage(body.text, {});
    if (body.end != DecodedBody::whole || !message.problem.empty()) return tests::ScriptedReply::Status(400);
    (file_ << message.itemLines).flush();
    storedItems_ += message.itemCount;
    return tests::ScriptedReply::Status(200);
  }

  std::ofstream file_;
  std::atomic<std::uint64_t> storedItems_{0};
  tests::ScriptedServer server_;  // last: its threads use the others
};

}  // namespace veld_report::server
