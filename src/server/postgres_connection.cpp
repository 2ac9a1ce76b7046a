#include "server/postgres_connection.h"

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace veld_report::server {
namespace {

// While a statement runs, nothing comes. So this is also the maximum time of one.
constexpr int silenceMs = 20'000;
constexpr const char* connectSeconds = "5";
constexpr std::uint32_t textOid = 25;

// libpq's messages have several lines, and their severity in front.
std::string FirstLine(std::string_view message) {
  message = message.substr(0, message.find('\n'));
  for (const std::string_view severity : {"ERROR:  ", "FATAL:  "}) {
    if (message.starts_with(severity)) message.remove_prefix(severity.size());
  }
  return message.empty() ? "the connection is lost" : std::string(message);
}

void AppendNumber(std::uint32_t number, std::string* bytes) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes->push_back(static_cast<char>(number >> shift & 0xff));
}

// libpq would see a wrong port with each attempt to connect only, and take it for a server that is away.
void CheckPorts(const PQconninfoOption* option) {
  while (option->keyword && std::string_view(option->keyword) != "port") ++option;
  std::string_view ports = option->keyword && option->val ? option->val : "";
  while (!ports.empty()) {
    const std::string_view port = ports.substr(0, ports.find(','));
    ports.remove_prefix(std::min(port.size() + 1, ports.size()));
    std::uint16_t number = 0;
    const auto [end, code] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (!port.empty() && (code != std::errc() || end != port.data() + port.size() || number == 0))
      throw std::invalid_argument("expected a port from 1 to 65535 in place of \"" + std::string(port) +
                                  "\"");
  }
}

// Keywords of a connection, which the url overrides.
constexpr const char* keywords[] = {"connect_timeout",
                                    "keepalives_idle",
                                    "tcp_user_timeout",
                                    "fallback_application_name",
                                    "dbname",
                                    "client_encoding",
                                    nullptr};

}  // namespace

void CheckPostgresUrl(const std::string& url) {
  char* problem = nullptr;
  const std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)> parsed(
      PQconninfoParse(url.c_str(), &problem), &PQconninfoFree);
  const std::unique_ptr<char, decltype(&PQfreemem)> freed(problem, &PQfreemem);
  if (parsed) return CheckPorts(parsed.get());
  if (!problem) throw std::bad_alloc();
  std::string sentence = FirstLine(problem);
  // What libpq quotes may be the password, except here.
  if (sentence.find("URI query parameter") == std::string::npos)
    sentence.resize(std::min(sentence.find(": \""), sentence.size()));
  throw std::invalid_argument(sentence);
}

void PostgresTextArray::Add(std::string_view text) {
  AppendNumber(static_cast<std::uint32_t>(text.size()), &elements_);
  elements_.append(text);
  ++count_;
}

void PostgresTextArray::AddNull() {
  AppendNumber(0xffffffff, &elements_);
  ++count_;
  hasNull_ = true;
}

const std::string& PostgresTextArray::Take() {
  taken_.clear();
  for (const std::uint32_t number : {1U, hasNull_ ? 1U : 0U, textOid, count_, 1U})
    AppendNumber(number, &taken_);
  taken_.append(elements_);
  elements_.clear();
  count_ = 0;
  hasNull_ = false;
  return taken_;
}

void PostgresConnection::Close::operator()(pg_conn* connection) const { PQfinish(connection); }
void PostgresConnection::Clear::operator()(pg_result* result) const { PQclear(result); }

PostgresConnection::PostgresConnection(const std::string& url) {
  const char* const values[] = {connectSeconds, "10", "20000", "veldrep", url.c_str(), "UTF8", nullptr};
  connection_.reset(PQconnectdbParams(keywords, values, 1));
  if (!connection_) throw std::bad_alloc();
  if (PQstatus(connection_.get()) != CONNECTION_OK) {
    // libpq doesn't say which kind of failure it was. A server that accepts connections has refused this one.
    const PGPing ping = PQpingParams(keywords, values, 1);
    throw PostgresError(FirstLine(PQerrorMessage(connection_.get())), "",
                        ping == PQPING_REJECT || ping == PQPING_NO_RESPONSE);
  }
  Check(PQsetnonblocking(connection_.get(), 1) == 0);
  // By default they go to stderr.
  PQsetNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);
}

PostgresConnection::~PostgresConnection() = default;

bool PostgresConnection::IsAlive() {
  // Before it closes, the server may say why. Each step takes a piece of what has come.
  pollfd socket{PQsocket(connection_.get()), POLLIN, 0};
  while (poll(&socket, 1, 0) > 0) {
    if (PQconsumeInput(connection_.get()) == 0) return false;
  }
  return PQstatus(connection_.get()) == CONNECTION_OK;
}

std::string PostgresConnection::Encoding() const {
  const char* const name = PQparameterStatus(connection_.get(), "server_encoding");
  return name ? name : "";
}

std::string PostgresConnection::Run(const std::string& statements) {
  Check(PQsendQuery(connection_.get(), statements.c_str()) == 1);
  std::string value;
  while (const Result result = Next()) {
    CheckResult(result.get());
    value = PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
  }
  return value;
}

void PostgresConnection::Prepare(const char* name, const char* statement) {
  Check(PQsendPrepare(connection_.get(), name, statement, 0, nullptr) == 1);
  while (const Result result = Next()) CheckResult(result.get());
}

void PostgresConnection::BeginPipeline() {
  Check(PQenterPipelineMode(connection_.get()) == 1);
  sent_ = 0;
}

void PostgresConnection::Send(const char* prepared, const std::vector<Parameter>& parameters) {
  std::vector<const char*> values;
  std::vector<int> lengths, formats;
  for (const Parameter& each : parameters) {
    values.push_back(each.value.data());
    lengths.push_back(static_cast<int>(each.value.size()));
    formats.push_back(each.isBinary);
  }
  Check(PQsendQueryPrepared(connection_.get(), prepared, static_cast<int>(values.size()), values.data(),
                            lengths.data(), formats.data(), 0) == 1);
  ++sent_;
  // libpq would keep a copy of everything that is waiting to be sent.
  Await([] { return true; });
}

void PostgresConnection::SendPlain(const char* statement) {
  Check(PQsendQueryParams(connection_.get(), statement, 0, nullptr, nullptr, nullptr, nullptr, 0) == 1);
  ++sent_;
}

std::vector<unsigned long> PostgresConnection::Finish() {
  Check(PQpipelineSync(connection_.get()) == 1);
  std::vector<unsigned long> touched;
  for (; sent_ > 0; --sent_) {
    const Result result = Next();
    CheckResult(result.get());
    touched.push_back(std::strtoul(PQcmdTuples(const_cast<PGresult*>(result.get())), nullptr, 10));
    if (Next()) Fail();  // the end of a statement's results
  }
  const Result end = Next();
  if (!end || PQresultStatus(end.get()) != PGRES_PIPELINE_SYNC) Fail();
  Check(PQexitPipelineMode(connection_.get()) == 1);
  return touched;
}

PostgresConnection::Result PostgresConnection::Next() {
  Await([this] { return PQisBusy(connection_.get()) == 0; });
  return Result(PQgetResult(connection_.get()));
}

// Reads also while it writes: neither side may wait for the other with full buffers.
void PostgresConnection::Await(const std::function<bool()>& done) {
  for (;;) {
    const int unsent = PQflush(connection_.get());
    Check(unsent >= 0);
    if (unsent == 0 && done()) return;
    pollfd socket{PQsocket(connection_.get()), POLLIN, 0};
    if (unsent == 1) socket.events |= POLLOUT;
    const int ready = poll(&socket, 1, silenceMs);
    if (ready == 0) throw PostgresError("the server hasn't answered for 20 seconds", "", true);
    if (ready < 0 && errno != EINTR) Fail();
    if (ready > 0 && (socket.revents & ~POLLOUT)) Check(PQconsumeInput(connection_.get()) == 1);
  }
}

void PostgresConnection::Check(bool ok) const {
  if (!ok) Fail();
}

void PostgresConnection::CheckResult(const pg_result* result) const {
  if (!result) Fail();
  const ExecStatusType status = PQresultStatus(result);
  if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return;
  const char* const message = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  const char* const state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  if (!message) Fail();
  const std::string code = state ? state : "";
  // It ends this connection because it stops or has crashed, or lost the connection itself.
  throw PostgresError(FirstLine(message), code, code.starts_with("57P") || code.starts_with("08"));
}

void PostgresConnection::Fail() const {
  throw PostgresError(FirstLine(PQerrorMessage(connection_.get())), "", true);
}

}  // namespace veld_report::server
