# The zip for Windows: `cpack` in build/windows after a build. Unzipped anywhere, it is all that a program needs which is
# built with mingw-w64: what the host kit is linked with lies in lib/veld_report. Beside what VeldPackage.cmake installs
# it has the .def files, from which other compilers make import libraries, the licences of everything in it, and a page.
include_guard(GLOBAL)

# Archives that the host kit needs, in the order of linking. In a folder of their own they are nobody else's by accident.
set(VELD_ZIP_ARCHIVES libcurl.a libcrypto.a libsqlite3.a libsimdjson.a libzstd.a libz.a)
install(FILES
  $<TARGET_FILE:CURL::libcurl> $<TARGET_FILE:OpenSSL::Crypto> $<TARGET_FILE:SQLite::SQLite3>
  $<TARGET_FILE:simdjson::simdjson> $<TARGET_FILE:${VELD_ZSTD}> $<TARGET_FILE:ZLIB::ZLIB>
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/veld_report COMPONENT dev)
# What these need of the system, libcurl above all.
set(VELD_ZIP_SYSTEM_LIBRARIES shell32 winmm ws2_32 normaliz advapi32 crypt32 bcrypt)
# The same for pkg-config.
list(TRANSFORM VELD_ZIP_ARCHIVES REPLACE "^lib(.*)\\.a$" "-l\\1" OUTPUT_VARIABLE archiveFlags)
list(TRANSFORM VELD_ZIP_SYSTEM_LIBRARIES PREPEND -l OUTPUT_VARIABLE systemFlags)
list(JOIN archiveFlags " " archiveFlags)
list(JOIN systemFlags " " systemFlags)
set(VELD_ZIP_LINK_FLAGS "-L\${libdir}/veld_report ${archiveFlags} ${systemFlags}")

install(FILES src/module/veld_report.def ${PROJECT_BINARY_DIR}/package/veld_report_c.def
  DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
configure_file(cmake/windows/README.txt.in ${PROJECT_BINARY_DIR}/package/README.txt @ONLY NEWLINE_STYLE CRLF)
install(FILES ${PROJECT_BINARY_DIR}/package/README.txt DESTINATION . COMPONENT runtime)

# Debian's record of each licence, and the licences that those only name. Without one of them there is no zip.
function(veld_install_licence name file)
  if(NOT EXISTS ${file})
    message(FATAL_ERROR "VELD_INSTALL: the licence of ${name} isn't at ${file}")
  endif()
  install(FILES ${file} DESTINATION licences RENAME ${name}.txt COMPONENT runtime)
endfunction()
foreach(name IN ITEMS curl libzstd openssl simdjson sqlite3)
  veld_install_licence(${name} ${PROJECT_SOURCE_DIR}/build/windows-libraries/licences/${name})
endforeach()
veld_install_licence(zlib /usr/share/doc/libz-mingw-w64/copyright)
veld_install_licence(xxhash /usr/share/doc/libxxhash-dev/copyright)
veld_install_licence(cli11 /usr/share/doc/libcli11-dev/copyright)
veld_install_licence(gcc-runtime /usr/share/doc/gcc-mingw-w64-base/copyright)
veld_install_licence(mingw-w64-runtime /usr/share/doc/mingw-w64-common/copyright)
foreach(name IN ITEMS Apache-2.0 GPL-3)
  veld_install_licence(${name} /usr/share/common-licenses/${name})
endforeach()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME veld-report)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_FILE_NAME veld-report-${PROJECT_VERSION}-windows-x86_64)
include(CPack)
