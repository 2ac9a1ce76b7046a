// The structs of the C interface, to and from those of the C++ one.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

#include "veld_report/reporter.h"
#include "veld_report/veld_report.h"

namespace veld_report {

inline std::string TextOf(const char* text) { return text ? text : ""; }

// Reads a caller's struct into `known`. It is one of this header, or a shorter one of an earlier header,
// whose missing members stay 0. False if it can't be served. `required`: the size in the first header.
template <class T>
bool ReadStruct(const T* given, std::size_t required, T* known) {
  if (!given || given->struct_size < required || given->struct_size > sizeof(T)) return false;
  std::memcpy(known, given, given->struct_size);
  return true;
}

// The reverse: as much as the caller's struct holds, whose size is in `known`.
template <class T>
void WriteStruct(const T& known, T* out) {
  std::memcpy(out, &known, known.struct_size);
}

// `given` has been read by ReadStruct. Throw std::bad_alloc.
ReporterOptions OptionsOf(const veld_report_options& given);
Settings SettingsOf(const veld_report_settings& given);
Listener ListenerOf(veld_report_listener listener, void* context);
LossListener LossListenerOf(veld_report_loss_listener listener, void* context);

// What the result's `memory` points to is for FreeSettings. Throws std::bad_alloc.
veld_report_settings CSettingsOf(Settings settings);
void FreeSettings(void* memory) noexcept;

veld_report_statistics CStatisticsOf(const Statistics& stats);
// Points to the texts of `endpoint`.
veld_report_endpoint_statistics CStatisticsOf(const EndpointStatistics& endpoint);

}  // namespace veld_report
