# Sources of src/rd_core, one fragment per area.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/aes.cc
)
include(${CMAKE_CURRENT_LIST_DIR}/sources_scanner.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/sources_pidoptions.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/sources_crypto.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/sources_capture.cmake)
