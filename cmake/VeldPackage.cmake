# What `cmake --install` installs, the files for find_package and pkg-config, and the .deb packages. VeldZip.cmake has
# what is different for Windows.
#
# Two components become two packages: `runtime` (module, C library, program, man pages, completions) and `dev`
# (headers, the host kit's archives, CMake and pkg-config files, documents). VeldService.cmake has a third.
include_guard(GLOBAL)
include(CMakePackageConfigHelpers)

set(VELD_INSTALL_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/veld_report)
if(WIN32)
  set(VELD_MODULE_FILE ${CMAKE_INSTALL_BINDIR}/veld_report.dll)
  include(VeldZip)
else()
  set(VELD_MODULE_FILE ${CMAKE_INSTALL_LIBDIR}/libveld_report.so)
endif()

install(DIRECTORY ${VELD_PUBLIC_INCLUDE}/veld_report DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(TARGETS veld_contract EXPORT contract COMPONENT dev)
install(TARGETS veld_report EXPORT contract
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS veld_report_host veld_report_host_static EXPORT host
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS veld_report_c EXPORT c
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
set(components contract host c)
if(VELD_PROGRAM)
  install(TARGETS veldrep EXPORT program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  list(APPEND components program)
endif()

# find_package(veld_report CONFIG COMPONENTS ...): one file of targets for each component.
foreach(component IN LISTS components)
  install(EXPORT ${component} NAMESPACE veld_report:: FILE veld_report-${component}.cmake
    DESTINATION ${VELD_INSTALL_CMAKE} COMPONENT dev)
endforeach()
set(package ${PROJECT_BINARY_DIR}/package)
configure_package_config_file(cmake/veld_report-config.cmake.in ${package}/veld_report-config.cmake
  INSTALL_DESTINATION ${VELD_INSTALL_CMAKE} PATH_VARS VELD_MODULE_FILE CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${package}/veld_report-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${package}/veld_report-config.cmake ${package}/veld_report-config-version.cmake
  DESTINATION ${VELD_INSTALL_CMAKE} COMPONENT dev)

install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT dev
  FILES_MATCHING PATTERN "*.md" PATTERN "*.png" PATTERN "*.toml")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)

# pkg-config. The prefix is relative, so that a package works wherever it was installed.
file(RELATIVE_PATH VELD_PREFIX_OF_PKGCONFIG /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VELD_PREFIX_OF_PKGCONFIG "${VELD_PREFIX_OF_PKGCONFIG}")
# veld_install_pkg_config(NAME DESCRIPTION LIBRARIES [PACKAGE...])
function(veld_install_pkg_config name description libraries)
  list(JOIN ARGN " " requires)
  configure_file(cmake/veld_report.pc.in ${package}/${name}.pc @ONLY)
  install(FILES ${package}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()
if(WIN32)
  set(findsModule "")
  set(kitFlags "${VELD_ZIP_LINK_FLAGS}")
  set(kitPackages "")
else()
  set(findsModule " -Wl,-rpath,\${libdir}")
  set(kitFlags "-pthread -ldl")
  set(kitPackages libcurl libcrypto sqlite3 simdjson zlib libzstd)
endif()
veld_install_pkg_config(veld_report "Records to report servers over HTTP, at least once"
  "-lveld_report_host${findsModule} ${kitFlags}" ${kitPackages})
veld_install_pkg_config(veld_report_static "veld_report with its module in the program"
  "-lveld_report_host_static ${kitFlags}" ${kitPackages})
veld_install_pkg_config(veld_report_c "veld_report for C" "-lveld_report_c${findsModule}")
if(WIN32)
  return()
endif()
# In the system's own folders the loader looks by itself.
string(CONFIGURE [[
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  foreach(name IN ITEMS veld_report veld_report_c)
    set(file "$ENV{DESTDIR}/usr/@CMAKE_INSTALL_LIBDIR@/pkgconfig/${name}.pc")
    file(READ ${file} text)
    string(REPLACE " -Wl,-rpath,\${libdir}" "" text "${text}")
    file(WRITE ${file} "${text}")
  endforeach()
endif()
]] withoutRpath @ONLY)
install(CODE "${withoutRpath}" COMPONENT dev)

# Man pages and completions.
install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime
  FILES_MATCHING PATTERN "*.1")
install(FILES cmake/completions/veldrep.bash RENAME veldrep
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT runtime)
install(FILES cmake/completions/_veldrep
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT runtime)
install(FILES cmake/completions/veldrep.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT runtime)

# The reference of the public headers, if Doxygen is there.
find_program(VELD_DOXYGEN doxygen)
if(VELD_DOXYGEN)
  file(WRITE ${package}/Doxyfile "@INCLUDE = ${PROJECT_SOURCE_DIR}/docs/Doxyfile\nOUTPUT_DIRECTORY = ${package}/reference\n")
  add_custom_command(OUTPUT ${package}/reference/html/index.html
    COMMAND ${CMAKE_COMMAND} -E make_directory ${package}/reference
    COMMAND ${VELD_DOXYGEN} ${package}/Doxyfile
    DEPENDS ${publicHeaders} docs/Doxyfile scripts/doxygen-filter
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "Writing the reference of the public headers")
  add_custom_target(veld_reference ALL DEPENDS ${package}/reference/html/index.html)
  install(DIRECTORY ${package}/reference/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
endif()

# The .deb packages: run `cpack` in the build folder after a build.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veld-report)
set(CPACK_PACKAGE_VENDOR "veld_report maintainers")
set(CPACK_PACKAGE_CONTACT "veld_report maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Records to report servers over HTTP, at least once")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME veld-report)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/debian/postinst ${PROJECT_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "The module that keeps records in persistent queues and sends them as signed\n JSON messages, and the program veldrep around it.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME veld-report-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "veld-report (= ${PROJECT_VERSION}), libcurl4-openssl-dev, libsimdjson-dev, libsqlite3-dev, libssl-dev, libzstd-dev, zlib1g-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Headers, the host kit's library and the files with which CMake and pkg-config\n find them, with examples and documents.")
if(VELD_SERVE)
  include(VeldService)
endif()
if(CMAKE_CROSSCOMPILING)
  # The libraries, and the packages that have them, are those of the system root and not of this machine.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VELD_DEBIAN_ARCHITECTURE})
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
  set(CPACK_PROJECT_CONFIG_FILE ${package}/dpkg-shlibdeps.cmake)
  file(WRITE ${CPACK_PROJECT_CONFIG_FILE}
    "set(ENV{DPKG_ADMINDIR} ${CMAKE_SYSROOT}/var/lib/dpkg)\nset(ENV{DEB_HOST_ARCH} ${VELD_DEBIAN_ARCHITECTURE})\n")
endif()
include(CPack)
