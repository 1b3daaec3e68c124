# Sources of src/ssl.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/sslCommunication.cc
)
