// From the reporter's options to those of the kit.
#pragma once

#include "host/kit/host_kit_options.h"
#include "veld_report/reporter.h"

namespace veld_report {

// Both throw std::invalid_argument for what the kit couldn't hold. The listener isn't looked at.
host::HostKitOptions KitOptionsOf(const ReporterOptions& options);
host::KitSettings KitSettingsOf(const Settings& settings);

Settings SettingsOf(const ReporterOptions& options);

}  // namespace veld_report
