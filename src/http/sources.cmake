# Sources of src/http.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/server.cc
  ${CMAKE_CURRENT_LIST_DIR}/http_frame.cc
  ${CMAKE_CURRENT_LIST_DIR}/request_reader.cc
  ${CMAKE_CURRENT_LIST_DIR}/pending_workers.cc
)
