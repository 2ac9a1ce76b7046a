# The package veld-report-server: `veldrep serve` as a service of systemd. It is for the .deb alone, since its units name
# the program by the path that the package `veld-report` gives it.
include_guard(GLOBAL)

install(FILES cmake/service/veld-report-server.service cmake/service/veld-report-server.socket
  DESTINATION lib/systemd/system COMPONENT server EXCLUDE_FROM_ALL)
install(FILES docs/man/veld-report-server.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT server EXCLUDE_FROM_ALL)
install(FILES docs/server.toml DESTINATION /etc/veld-report COMPONENT server EXCLUDE_FROM_ALL)

list(APPEND CPACK_COMPONENTS_ALL server)
set(CPACK_DEBIAN_SERVER_PACKAGE_NAME veld-report-server)
set(CPACK_DEBIAN_SERVER_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "veld-report (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/service/conffiles ${PROJECT_SOURCE_DIR}/cmake/service/postinst
  ${PROJECT_SOURCE_DIR}/cmake/service/prerm ${PROJECT_SOURCE_DIR}/cmake/service/postrm)
set(CPACK_COMPONENT_SERVER_DESCRIPTION
  "The units and the configuration with which systemd runs the report server,\n veldrep serve. It isn't enabled until its configuration says where records go.")
