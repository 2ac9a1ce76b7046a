# The header with the version and vcpkg.json are written by hand. A difference to the project's version stops the
# configuration.
include_guard(GLOBAL)

file(STRINGS ${PROJECT_SOURCE_DIR}/src/host/include/veld_report/version.h lines REGEX "^#define VELD_REPORT_VERSION")
foreach(part IN ITEMS _MAJOR _MINOR _PATCH)
  list(APPEND expected "#define VELD_REPORT_VERSION${part} ${PROJECT_VERSION${part}}")
endforeach()
list(APPEND expected "#define VELD_REPORT_VERSION \"${PROJECT_VERSION}\"")
foreach(line IN LISTS expected)
  if(NOT line IN_LIST lines)
    message(FATAL_ERROR "veld_report/version.h lacks the line: ${line}")
  endif()
endforeach()
file(READ ${PROJECT_SOURCE_DIR}/vcpkg.json manifest)
string(JSON version GET "${manifest}" version-semver)
if(NOT version STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "vcpkg.json has the version ${version}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/src/host/include/veld_report/version.h ${PROJECT_SOURCE_DIR}/vcpkg.json)
