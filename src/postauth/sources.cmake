# Sources of src/postauth.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/postauth.cc
  ${CMAKE_CURRENT_LIST_DIR}/handheld.cc
  ${CMAKE_CURRENT_LIST_DIR}/PostAuth_xml_parse.cc
)
