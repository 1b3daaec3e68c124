# Sources of src/http.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/listener.cc
  ${CMAKE_CURRENT_LIST_DIR}/connection.cc
  ${CMAKE_CURRENT_LIST_DIR}/dispatch.cc
)
