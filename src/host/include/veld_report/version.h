/* The version of these headers, and of the library that a program runs with. For C and C++.
 *
 * docs/versions.md says what a version promises. The build refuses numbers that differ from the project's.
 */
#ifndef VELD_REPORT_VERSION_H
#define VELD_REPORT_VERSION_H

#define VELD_REPORT_VERSION_MAJOR 0
#define VELD_REPORT_VERSION_MINOR 1
#define VELD_REPORT_VERSION_PATCH 0
#define VELD_REPORT_VERSION "0.1.0"
/* For comparisons: VELD_REPORT_VERSION_NUMBER >= 10203 is 1.2.3 or later. */
#define VELD_REPORT_VERSION_NUMBER \
  (VELD_REPORT_VERSION_MAJOR * 10000 + VELD_REPORT_VERSION_MINOR * 100 + VELD_REPORT_VERSION_PATCH)

#ifdef __cplusplus
namespace veld_report {

// Of the library that this program was linked with, in the form of VELD_REPORT_VERSION.
const char* Version() noexcept;

}  // namespace veld_report
#endif

#endif
