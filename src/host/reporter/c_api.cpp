#include <algorithm>
#include <cstddef>
#include <string>

#include "host/platform/process.h"
#include "host/reporter/c_structs.h"
#include "veld_report/code_text.h"
#include "veld_report/reporter.h"
#include "veld_report/veld_report.h"

struct veld_report_handle {
  veld_report::Reporter reporter;
  const std::uint64_t process = veld_report::host::CurrentProcess();
};

namespace {

using std::chrono::milliseconds;

void WriteError(std::string_view sentence, char* error, size_t size) {
  if (!error || size == 0) return;
  const size_t length = std::min(sentence.size(), size - 1);
  std::copy_n(sentence.data(), length, error);
  error[length] = '\0';
}

int32_t InvalidArgument(const char* sentence, char* error = nullptr, size_t size = 0) {
  WriteError(sentence, error, size);
  return zel::eInvalidArgument;
}

// As it was in the first header.
constexpr size_t firstSettingsSize = offsetof(veld_report_settings, common);

// Whether what a program has filled points to all that it counts.
template <class Given>
bool IsComplete(const Given& given) {
  return (given.endpoint_count == 0 || given.endpoints) && (given.common_count == 0 || given.common);
}

// Runs `body`; an exception becomes its code and sentence.
template <class Body>
int32_t Guarded(char* error, size_t size, Body&& body) noexcept {
  try {
    body();
    return zel::sOk;
  } catch (const veld_report::ReporterError& caught) {
    WriteError(caught.what(), error, size);
    return caught.Code();
  } catch (const std::bad_alloc&) {
    WriteError("out of memory", error, size);
    return zel::eOutOfMemory;
  } catch (const std::exception& caught) {
    WriteError(caught.what(), error, size);
    return zel::eUnspecifiedError;
  } catch (...) {
    WriteError("a callback has thrown", error, size);
    return zel::eUnknownException;
  }
}

}  // namespace

const char* veld_report_version(void) { return veld_report::Version(); }

void veld_report_code_text(int32_t code, char* text, size_t text_size) {
  Guarded(text, text_size, [&] { WriteError(veld_report::CodeText(code), text, text_size); });
}

int32_t veld_report_open(const veld_report_options* options, veld_report_handle** out, char* error,
                         size_t error_size) {
  if (out) *out = nullptr;
  veld_report_options known{};
  if (!out || !veld_report::ReadStruct(options, offsetof(veld_report_options, packet_limit), &known) ||
      !IsComplete(known)) {
    return InvalidArgument(
        "open: options, out, endpoints or common is NULL, or struct_size doesn't match this header", error,
        error_size);
  }
  return Guarded(error, error_size, [&] {
    *out = new veld_report_handle{veld_report::Reporter(veld_report::OptionsOf(known))};
  });
}

int32_t veld_report_send_json(veld_report_handle* reporter, const char* consumer, const char* json,
                              size_t length, char* error, size_t error_size) {
  if (!reporter || !json) return InvalidArgument("send: reporter or json is NULL", error, error_size);
  std::string sentence;
  const int32_t code = reporter->reporter.TrySendJson({json, length}, consumer ? consumer : "", &sentence);
  if (zel::Failed(code)) WriteError(sentence, error, error_size);
  return code;
}

int32_t veld_report_flush(veld_report_handle* reporter, uint32_t deadline_ms) {
  return reporter && reporter->reporter.Flush(milliseconds(deadline_ms)) ? 1 : 0;
}

int32_t veld_report_flush_to_store(veld_report_handle* reporter, uint32_t deadline_ms) {
  return reporter && reporter->reporter.FlushToStore(milliseconds(deadline_ms)) ? 1 : 0;
}

int32_t veld_report_set_settings(veld_report_handle* reporter, const veld_report_settings* settings,
                                 char* error, size_t error_size) {
  veld_report_settings known{};
  if (!reporter || !veld_report::ReadStruct(settings, firstSettingsSize, &known) || !IsComplete(known)) {
    return InvalidArgument(
        "settings: reporter, settings, endpoints or common is NULL, or struct_size doesn't match this header",
        error, error_size);
  }
  return Guarded(error, error_size, [&] { reporter->reporter.SetSettings(veld_report::SettingsOf(known)); });
}

int32_t veld_report_get_settings(veld_report_handle* reporter, veld_report_settings* out) {
  veld_report_settings known{};
  if (!reporter || !veld_report::ReadStruct(out, firstSettingsSize, &known)) return zel::eInvalidArgument;
  return Guarded(nullptr, 0, [&] {
    const size_t size = known.struct_size;
    known = veld_report::CSettingsOf(reporter->reporter.CurrentSettings());
    known.struct_size = size;
    veld_report::WriteStruct(known, out);
  });
}

void veld_report_free_settings(veld_report_settings* settings) {
  if (!settings) return;
  veld_report::FreeSettings(settings->memory);
  settings->memory = nullptr;
}

int32_t veld_report_set_listener(veld_report_handle* reporter, veld_report_listener listener, void* context) {
  if (!reporter) return zel::eInvalidArgument;
  return Guarded(nullptr, 0,
                 [&] { reporter->reporter.SetListener(veld_report::ListenerOf(listener, context)); });
}

int32_t veld_report_set_loss_listener(veld_report_handle* reporter, veld_report_loss_listener listener,
                                      void* context) {
  if (!reporter) return zel::eInvalidArgument;
  return Guarded(nullptr, 0,
                 [&] { reporter->reporter.SetLossListener(veld_report::LossListenerOf(listener, context)); });
}

int32_t veld_report_allow_sending(veld_report_handle* reporter, uint32_t allowed) {
  if (!reporter) return zel::eInvalidArgument;
  if (reporter->process != veld_report::host::CurrentProcess()) return zel::eInvalidState;
  reporter->reporter.AllowSending(allowed != 0);
  return zel::sOk;
}

int32_t veld_report_forget(veld_report_handle* reporter, char* error, size_t error_size) {
  if (!reporter) return InvalidArgument("forget: reporter is NULL", error, error_size);
  return Guarded(error, error_size, [&] { reporter->reporter.Forget(); });
}

int32_t veld_report_stats(veld_report_handle* reporter, veld_report_statistics* out) {
  veld_report_statistics known{};
  if (!reporter || !veld_report::ReadStruct(out, offsetof(veld_report_statistics, submitted), &known)) {
    return zel::eInvalidArgument;
  }
  return Guarded(nullptr, 0, [&] {
    const size_t size = known.struct_size;
    known = veld_report::CStatisticsOf(reporter->reporter.Stats());
    known.struct_size = size;
    veld_report::WriteStruct(known, out);
  });
}

int32_t veld_report_endpoint_stats(veld_report_handle* reporter, veld_report_endpoint_visitor visit,
                                   void* context) {
  if (!reporter || !visit) return zel::eInvalidArgument;
  return Guarded(nullptr, 0, [&] {
    for (const veld_report::EndpointStatistics& each : reporter->reporter.Stats().endpoints) {
      const veld_report_endpoint_statistics endpoint = veld_report::CStatisticsOf(each);
      visit(context, &endpoint);
    }
  });
}

int32_t veld_report_close(veld_report_handle* reporter, uint32_t deadline_ms) {
  return reporter && reporter->reporter.Close(milliseconds(deadline_ms)) ? 1 : 0;
}

int32_t veld_report_is_closed(veld_report_handle* reporter) {
  return reporter && reporter->reporter.IsClosed() ? 1 : 0;
}

void veld_report_free(veld_report_handle* reporter) { delete reporter; }
