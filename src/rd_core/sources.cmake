# Sources of src/rd_core, one fragment per area.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/aes.cc
)
include(${CMAKE_CURRENT_LIST_DIR}/sources_scanner.cmake OPTIONAL)
include(${CMAKE_CURRENT_LIST_DIR}/sources_pidoptions.cmake OPTIONAL)
include(${CMAKE_CURRENT_LIST_DIR}/sources_crypto.cmake OPTIONAL)
include(${CMAKE_CURRENT_LIST_DIR}/sources_capture.cmake OPTIONAL)
