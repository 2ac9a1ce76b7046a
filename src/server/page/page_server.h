// PageServer: the listener for people and their tools: the live page, /metrics, /healthz and /readyz.
//
// It differs from the report server in that it only reads: whatever is asked of it, messages arrive as
// before. It has a thread of its own and up to 64 connections; a reader that is slow or silent is cut.
//
//   /           the page, with its files and what its script reads (page_json.h)
//   /metrics    figures for Prometheus
//   /healthz    200 while the process answers
//   /readyz     200 while messages can be stored, otherwise 503 with a sentence
//
// The last two say nothing about records and are open to everybody; who may see the rest is in page_access.h.
// Beyond loopback it speaks TLS with the server's certificate, if that has one. On loopback it doesn't: no
// certificate names 127.0.0.1, and nobody listens there who couldn't read the process.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/page/page_watch.h"
#include "server/report_server.h"

namespace veld_report::server {

struct PageServerOptions {
  std::string address = "127.0.0.1";  // as in ReportServerOptions
  std::uint16_t port = 0;
  std::string token;   // empty: none, which only loopback allows
  int listening = -1;  // as in ReportServerOptions
};

// Life: listens from the constructor's return to the destructor.
class PageServer {
 public:
  // Both must outlive it; `watch` must be the server's observer. Throws std::runtime_error with a sentence:
  // it can't listen there, or not without a token.
  PageServer(const PageServerOptions& options, const ReportServer& server, PageWatch& watch);
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  std::uint16_t Port() const;
  // "http://127.0.0.1:4711/".
  std::string Url() const;
  // What its owner should hear about how it can be reached; empty: nothing.
  std::string Warning() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// Throws as the constructor does, without listening.
void CheckPageAddress(const PageServerOptions& options);

}  // namespace veld_report::server
