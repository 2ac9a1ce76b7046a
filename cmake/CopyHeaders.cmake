cmake_minimum_required(VERSION 3.25)
# cmake -D SOURCE=src -D OUTPUT=include -P CopyHeaders.cmake
# Copies the public headers to OUTPUT/veld_report, and makes their includes begin there. In the sources the contract's
# headers have roots of their own, since host and module share them. OUTPUT/in_tree has the same names for sources that
# are built in both places, as forwarding headers.
file(GLOB_RECURSE contract RELATIVE ${SOURCE} ${SOURCE}/contract/*.h)
file(GLOB_RECURSE host RELATIVE ${SOURCE} ${SOURCE}/host/include/veld_report/*.h)
file(REMOVE_RECURSE ${OUTPUT}/veld_report)
foreach(header IN LISTS contract host)
  file(READ ${SOURCE}/${header} text)
  string(REGEX REPLACE "#include \"(contract|types)/" "#include \"veld_report/\\1/" text "${text}")
  string(REGEX REPLACE "^(contract/types|contract|host/include/veld_report)/" "" name ${header})
  if(header MATCHES "^contract/types/")
    set(name types/${name})
  elseif(header MATCHES "^contract/")
    set(name contract/${name})
  endif()
  file(WRITE ${OUTPUT}/veld_report/${name} "${text}")
  if(header IN_LIST contract)
    file(WRITE ${OUTPUT}/in_tree/veld_report/${name} "#include \"${name}\"\n")
  endif()
endforeach()
file(TOUCH ${OUTPUT}/stamp)
