list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/rd_codes.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_log.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_status.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_config.cc
  ${CMAKE_CURRENT_LIST_DIR}/work_area.cc
  ${CMAKE_CURRENT_LIST_DIR}/secret.cc
)
