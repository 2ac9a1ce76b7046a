# What `cmake --install` installs, the files for find_package and pkg-config, and the .deb packages.
#
# Two components become two packages: `runtime` (module, C library, program, man pages, completions) and `dev`
# (headers, the host kit's archive, CMake and pkg-config files).
include_guard(GLOBAL)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# What users of the host kit's archive have to link.
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(simdjson REQUIRED)
find_package(Threads REQUIRED)

# The contract's headers are contract/ and types/ in here, beside those of the host kit.
set(VELD_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/veld_report)
set(VELD_INSTALL_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/veld_report)

# Collects the static libraries that the folders below `folder` build into `out`.
function(veld_collect_static_libraries folder out)
  set(all "")
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "STATIC_LIBRARY")
      list(APPEND all ${target})
    endif()
  endforeach()
  get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(inner IN LISTS folders)
    veld_collect_static_libraries(${inner} below)
    list(APPEND all ${below})
  endforeach()
  set(${out} ${all} PARENT_SCOPE)
endfunction()

# veld_report::contract, all that your own host needs.
add_library(veld_contract INTERFACE)
target_compile_features(veld_contract INTERFACE cxx_std_20)
target_include_directories(veld_contract INTERFACE
  "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src;${PROJECT_SOURCE_DIR}/src/contract>"
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  $<INSTALL_INTERFACE:${VELD_INSTALL_HEADERS}>)
set_target_properties(veld_contract PROPERTIES EXPORT_NAME contract)
set_target_properties(veld_report PROPERTIES EXPORT_NAME module)
install(TARGETS veld_contract EXPORT veld_report COMPONENT dev)
install(TARGETS veld_report EXPORT veld_report
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
file(GLOB contractHeaders CONFIGURE_DEPENDS src/contract/*.h)
install(FILES ${contractHeaders} DESTINATION ${VELD_INSTALL_HEADERS}/contract COMPONENT dev)
install(DIRECTORY src/contract/types DESTINATION ${VELD_INSTALL_HEADERS} COMPONENT dev FILES_MATCHING PATTERN "*.h")

# veld_report::host, the folders of the host kit as one archive.
veld_collect_static_libraries(${PROJECT_SOURCE_DIR}/src/host hostLibraries)
set(hostObjects $<TARGET_OBJECTS:veld_types>)
foreach(library IN LISTS hostLibraries)
  list(APPEND hostObjects $<TARGET_OBJECTS:${library}>)
endforeach()
add_library(veld_report_host STATIC ${hostObjects})
set_target_properties(veld_report_host PROPERTIES EXPORT_NAME host LINKER_LANGUAGE CXX)
target_link_libraries(veld_report_host INTERFACE veld_contract
  CURL::libcurl OpenSSL::SSL OpenSSL::Crypto SQLite::SQLite3 simdjson::simdjson Threads::Threads
  ${CMAKE_DL_LIBS})
add_dependencies(veld_report_host veld_report)
# The installed package says by itself where its module is.
target_link_options(veld_report_host INTERFACE $<BUILD_INTERFACE:LINKER:-rpath,$<TARGET_FILE_DIR:veld_report>>)
install(TARGETS veld_report_host EXPORT veld_report ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY src/host/include/veld_report DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# veld_report::c, the C interface of the host kit.
set_target_properties(veld_report_c PROPERTIES
  EXPORT_NAME c VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(veld_report_c INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS veld_report_c EXPORT veld_report
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

# find_package(veld_report CONFIG) and pkg-config.
install(EXPORT veld_report NAMESPACE veld_report:: FILE veld_report_targets.cmake
  DESTINATION ${VELD_INSTALL_CMAKE} COMPONENT dev)
configure_package_config_file(cmake/veld_report-config.cmake.in
  ${CMAKE_BINARY_DIR}/package/veld_report-config.cmake
  INSTALL_DESTINATION ${VELD_INSTALL_CMAKE} PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/veld_report-config-version.cmake
  COMPATIBILITY SameMinorVersion)
# Relative, so that a package works wherever it was installed.
file(RELATIVE_PATH VELD_PREFIX_OF_PKGCONFIG
  /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/veld_report.pc.in ${CMAKE_BINARY_DIR}/package/veld_report.pc @ONLY)
install(FILES
  ${CMAKE_BINARY_DIR}/package/veld_report-config.cmake
  ${CMAKE_BINARY_DIR}/package/veld_report-config-version.cmake
  DESTINATION ${VELD_INSTALL_CMAKE} COMPONENT dev)
install(FILES ${CMAKE_BINARY_DIR}/package/veld_report.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The program, its man pages, completions and documents.
install(TARGETS veldrep RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime
  FILES_MATCHING PATTERN "*.1")
install(FILES cmake/completions/veldrep.bash RENAME veldrep
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT runtime)
install(FILES cmake/completions/_veldrep
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT runtime)
install(FILES cmake/completions/veldrep.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT runtime)
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT dev FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)

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
  "veld-report (= ${PROJECT_VERSION}), libcurl4-openssl-dev, libsimdjson-dev, libsqlite3-dev, libssl-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Headers, the host kit's library and the files with which CMake and pkg-config\n find them, with examples and documents.")
include(CPack)
