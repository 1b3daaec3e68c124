list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/rd_codes.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_log.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_status.cc
  ${CMAKE_CURRENT_LIST_DIR}/rd_config.cc
  ${CMAKE_CURRENT_LIST_DIR}/work_area.cc
  ${CMAKE_CURRENT_LIST_DIR}/secret.cc
  ${CMAKE_CURRENT_LIST_DIR}/hash.cc
  ${CMAKE_CURRENT_LIST_DIR}/request_reader.cc
  ${CMAKE_CURRENT_LIST_DIR}/file_crc.cc
  ${CMAKE_CURRENT_LIST_DIR}/http_frame.cc
  ${CMAKE_CURRENT_LIST_DIR}/config_file.cc
  ${CMAKE_CURRENT_LIST_DIR}/adapters.cc
)
