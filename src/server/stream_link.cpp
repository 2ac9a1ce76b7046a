#include "server/stream_link.h"

#include <array>
#include <new>
#include <utility>
#include <vector>

namespace veld_report::server {
namespace {

constexpr std::int64_t nanoseconds = 1'000'000'000;

template <class Object, void (*destroy)(Object*)>
struct Destroyer {
  void operator()(Object* object) const { destroy(object); }
};
using Options = std::unique_ptr<natsOptions, Destroyer<natsOptions, &natsOptions_Destroy>>;
using StreamInfo = std::unique_ptr<jsStreamInfo, Destroyer<jsStreamInfo, &jsStreamInfo_Destroy>>;

// "reports.*" and ">" take "reports.2f".
bool Takes(const std::string& filter, const std::string& stream) {
  return filter == stream + ".*" || filter == stream + ".>" || filter == "*.*" || filter == ">" ||
         filter == "*.>";
}

// The library puts the place in its sources before a reason: "(jsm.c:1033): stream not found".
std::string WithoutPlace(const std::string& reason) {
  const std::size_t end = reason.find("): ");
  return reason.starts_with('(') && end != std::string::npos ? reason.substr(end + 3) : reason;
}

// Away at the moment, as opposed to wrong.
bool Passes(natsStatus status, int code) {
  constexpr int notAvailable = 10'008;  // the cluster has no leader at present
  constexpr int offline = 10'118;       // the stream has no majority
  switch (status) {
    case NATS_TIMEOUT:
    case NATS_NO_RESPONDERS:
    case NATS_NO_SERVER:
    case NATS_IO_ERROR:
    case NATS_NOT_YET_CONNECTED:
    case NATS_CONNECTION_DISCONNECTED:
    case NATS_STALE_CONNECTION:
      return true;
    default:
      return code == notAvailable || code == offline;
  }
}

}  // namespace

StreamLink::StreamLink(StreamUrl url) : url_(std::move(url)) {
  natsOptions* raw = nullptr;
  if (natsOptions_Create(&raw) != NATS_OK) throw std::bad_alloc();
  const Options options(raw);
  std::vector<std::string> urls;
  for (const std::string& broker : url_.brokers) urls.push_back("nats://" + broker);
  std::vector<const char*> texts;
  texts.reserve(urls.size());
  for (const std::string& text : urls) texts.push_back(text.c_str());

  natsStatus status = NATS_OK;
  const auto set = [&](natsStatus next) { status = status == NATS_OK ? next : status; };
  set(natsOptions_SetServers(raw, texts.data(), static_cast<int>(texts.size())));
  if (!url_.user.empty()) set(natsOptions_SetUserInfo(raw, url_.user.c_str(), url_.password.c_str()));
  if (!url_.authorities.empty()) {
    set(natsOptions_SetSecure(raw, true));
    if (url_.authorities != "system") {
      set(natsOptions_LoadCATrustedCertificates(raw, url_.authorities.c_str()));
      if (status != NATS_OK)
        throw StreamError(
            url_.Name() + ": " + url_.authorities + " can't be read as a PEM file with certificates", false);
    }
  }
  set(natsOptions_SetName(raw, "veldrep"));
  set(natsOptions_SetTimeout(raw, patience.count()));
  set(natsOptions_SetMaxReconnect(raw, -1));
  set(natsOptions_SetReconnectWait(raw, 250));
  // A broker that says nothing is given up after 6 seconds.
  set(natsOptions_SetPingInterval(raw, 2000));
  set(natsOptions_SetMaxPingsOut(raw, 2));
  // Who waits for an answer hears at once that it won't come.
  set(natsOptions_SetFailRequestsOnDisconnect(raw, true));
  // The library's default writes to stderr.
  set(natsOptions_SetErrorHandler(
      raw, [](natsConnection*, natsSubscription*, natsStatus, void*) {}, nullptr));
  natsConnection* connection = nullptr;
  // Only an attempt that isn't repeated gives its reason, which one wants to know of TLS.
  if (!url_.authorities.empty() && status == NATS_OK && natsConnection_Connect(&connection, raw) != NATS_OK) {
    natsStatus failure = NATS_OK;
    if (const char* reason = nats_GetLastError(&failure)) firstFailure_ = WithoutPlace(reason);
  }
  if (!connection) {
    set(natsOptions_SetRetryOnFailedConnect(
        raw, true, [](natsConnection*, void*) {}, nullptr));
    set(natsConnection_Connect(&connection, raw));
  }
  connection_.reset(connection);
  if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) Fail("can't connect", status);

  jsOptions defaults;
  jsOptions_Init(&defaults);
  defaults.Wait = patience.count();
  jsCtx* context = nullptr;
  status = natsConnection_JetStream(&context, connection, &defaults);
  context_.reset(context);
  if (status != NATS_OK) Fail("can't use JetStream", status);
}

StreamLink::~StreamLink() = default;

void StreamLink::RequireConnection() const {
  if (natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED) return;
  const char* reason = nullptr;
  natsConnection_GetLastError(connection_.get(), &reason);
  const std::string known = reason && *reason ? WithoutPlace(reason) : firstFailure_;
  throw StreamError(url_.Name() + ": no broker can be reached" + (known.empty() ? "" : " (" + known + ")"),
                    true);
}

std::size_t StreamLink::MaxMessageBytes() const {
  return static_cast<std::size_t>(natsConnection_GetMaxPayload(connection_.get()));
}

std::string StreamLink::RequireStream(const std::string& name) const {
  RequireConnection();
  jsErrCode code{};
  jsStreamInfo* raw = nullptr;
  natsStatus status = js_GetStreamInfo(&raw, context_.get(), name.c_str(), nullptr, &code);
  if (status == NATS_NOT_FOUND) {
    const std::string subject = name + ".*";
    std::array<const char*, 1> subjects{subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name.c_str();
    config.Subjects = subjects.data();
    config.SubjectsLen = 1;
    config.Storage = js_FileStorage;
    // What was drained is removed. A full stream refuses packets: their senders keep them.
    config.Retention = js_WorkQueuePolicy;
    config.Discard = js_DiscardNew;
    config.Replicas = url_.replicas == 0 ? 1 : url_.replicas;
    config.Duplicates = (url_.duplicates.count() == 0 ? 120 : url_.duplicates.count()) * nanoseconds;
    status = js_AddStream(&raw, context_.get(), &config, nullptr, &code);
    if (status != NATS_OK) Fail("can't make the stream " + name, status, code);
  }
  if (status != NATS_OK) Fail("can't ask for the stream " + name, status, code);
  const StreamInfo info(raw);
  const jsStreamConfig& found = *info->Config;
  const auto refuse = [&](const std::string& what) {
    throw StreamError(url_.Name() + ": the stream " + name + " " + what, false);
  };
  const auto differs = [&](const char* option, std::int64_t wanted, std::int64_t has) {
    if (wanted != 0 && wanted != has)
      refuse("has " + std::string(option) + "=" + std::to_string(has) + ", but the url asks for " +
             std::to_string(wanted) + "; change one of them");
  };
  differs("replicas", url_.replicas, found.Replicas);
  differs("duplicates", url_.duplicates.count(), found.Duplicates / nanoseconds);
  bool taken = false;
  for (int i = 0; i < found.SubjectsLen; ++i) taken = taken || Takes(found.Subjects[i], name);
  if (!taken) refuse("doesn't take the subjects " + name + ".*");
  if (found.Storage != js_FileStorage) refuse("is kept in memory; 200 would promise too much");
  if (found.NoAck) refuse("acknowledges nothing");
  const bool isLimited =
      found.MaxAge > 0 || found.MaxMsgs > 0 || found.MaxBytes > 0 || found.MaxMsgsPerSubject > 0;
  if (found.MaxAge > 0 || (isLimited && found.Discard == js_DiscardOld))
    return url_.Name() + ": the stream " + name +
           " removes old packets at its limits, whether they were drained or not";
  return {};
}

void StreamLink::Flush() const noexcept { natsConnection_FlushTimeout(connection_.get(), patience.count()); }

void StreamLink::Fail(const std::string& what, natsStatus status, int code) const {
  std::string reason = natsStatus_GetText(status);
  // The library's latest error has more to say if it is of this call.
  natsStatus latest = NATS_OK;
  const char* const detail = nats_GetLastError(&latest);
  if (detail && *detail && latest == status) reason = WithoutPlace(detail);
  if (status == NATS_NO_RESPONDERS) reason = "JetStream is off there, or not ready";
  throw StreamError(url_.Name() + ": " + what + ": " + reason, Passes(status, code));
}

}  // namespace veld_report::server
