# Sources of src/init.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/rd_codes.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_log.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_status.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_config.cc
)
include(${CMAKE_CURRENT_LIST_DIR}/sources_config.cmake)
list(APPEND VEXO_SOURCES ${CMAKE_CURRENT_LIST_DIR}/init.cc)
