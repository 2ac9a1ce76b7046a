# The targets that other projects link: their names, their headers, and the archives of the host kit.
#
# veld_report::contract, ::host, ::host_static, ::c, ::module and ::program are the same whether this project was
# installed or is a part of another one.
include_guard(GLOBAL)

# What users of the host kit's archive have to link.
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(simdjson REQUIRED)
find_package(ZLIB REQUIRED)
find_package(zstd REQUIRED)
find_package(Threads REQUIRED)

# The public headers as they are installed: all in veld_report/, so that no other name enters an include path.
set(VELD_PUBLIC_INCLUDE ${PROJECT_BINARY_DIR}/package/include)
file(GLOB_RECURSE publicHeaders CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/src/contract/*.h ${PROJECT_SOURCE_DIR}/src/host/include/*.h)
add_custom_command(
  OUTPUT ${VELD_PUBLIC_INCLUDE}/stamp
  COMMAND ${CMAKE_COMMAND} -D SOURCE=${PROJECT_SOURCE_DIR}/src -D OUTPUT=${VELD_PUBLIC_INCLUDE}
          -P ${PROJECT_SOURCE_DIR}/cmake/CopyHeaders.cmake
  DEPENDS ${publicHeaders} ${PROJECT_SOURCE_DIR}/cmake/CopyHeaders.cmake
  COMMENT "Copying the public headers")
add_custom_target(veld_public_headers ALL DEPENDS ${VELD_PUBLIC_INCLUDE}/stamp)
file(MAKE_DIRECTORY ${VELD_PUBLIC_INCLUDE})

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

# veld_public_target(TARGET NAME): makes it veld_report::NAME, with the public headers.
function(veld_public_target target name)
  add_library(veld_report::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  add_dependencies(${target} veld_public_headers)
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${VELD_PUBLIC_INCLUDE}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

# veld_report::contract, all that your own host needs.
add_library(veld_contract INTERFACE)
veld_public_target(veld_contract contract)
target_compile_features(veld_contract INTERFACE cxx_std_20)

add_library(veld_report::module ALIAS veld_report)
set_target_properties(veld_report PROPERTIES EXPORT_NAME module)
if(VELD_PROGRAM)
  add_executable(veld_report::program ALIAS veldrep)
  set_target_properties(veldrep PROPERTIES EXPORT_NAME program)
endif()

# What the host kit's archives are linked with. In the zip for Windows these libraries lie beside them, as
# veld_report::kit_libraries.
set(kitLibraries CURL::libcurl OpenSSL::Crypto SQLite::SQLite3 ZLIB::ZLIB simdjson::simdjson ${VELD_ZSTD})
if(WIN32)
  set(kitLibraries "$<BUILD_INTERFACE:${kitLibraries}>" $<INSTALL_INTERFACE:veld_report::kit_libraries>)
endif()

# veld_add_host(TARGET NAME LIBRARY...): the folders of the host kit and more as one archive.
function(veld_add_host target name)
  foreach(library IN LISTS ARGN)
    list(APPEND objects $<TARGET_OBJECTS:${library}>)
  endforeach()
  add_library(${target} STATIC ${objects})
  veld_public_target(${target} ${name})
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
  target_compile_features(${target} INTERFACE cxx_std_20)
  target_link_libraries(${target} INTERFACE ${kitLibraries} Threads::Threads ${CMAKE_DL_LIBS})
endfunction()

veld_collect_static_libraries(${PROJECT_SOURCE_DIR}/src/host hostLibraries)
list(REMOVE_ITEM hostLibraries veld_host_module_loaded veld_host_module_linked)
# veld_report::host loads the module. veld_report::host_static contains it, for programs of one file.
veld_add_host(veld_report_host host ${hostLibraries} veld_types veld_host_module_loaded)
add_dependencies(veld_report_host veld_report)
if(NOT WIN32)
  target_link_options(veld_report_host INTERFACE $<BUILD_INTERFACE:LINKER:-rpath,$<TARGET_FILE_DIR:veld_report>>)
endif()
veld_add_host(veld_report_host_static host_static
  ${hostLibraries} veld_types veld_host_module_linked veld_module_objects veld_module_linked)

# veld_report::c, the C interface of the host kit.
veld_public_target(veld_report_c c)
add_dependencies(veld_report_c veld_report)
# Raised when a program that was linked with an earlier one can't run with it.
set_target_properties(veld_report_c PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
