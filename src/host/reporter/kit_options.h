// Turns the reporter's options into those of the kit.
#pragma once

#include "host/kit/host_kit_options.h"
#include "veld_report/reporter.h"

namespace veld_report {

// Both throw std::invalid_argument for values out of the kit's range. The listener is ignored.
host::HostKitOptions KitOptionsOf(const ReporterOptions& options);
host::KitSettings KitSettingsOf(const Settings& settings);

Settings SettingsOf(const ReporterOptions& options);

}  // namespace veld_report
