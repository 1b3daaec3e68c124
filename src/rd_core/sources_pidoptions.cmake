# PidOptions gates, PidData framing and the CAPTURE / DEVICEINFO workers.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/xml_parse.cc
  ${CMAKE_CURRENT_LIST_DIR}/pid_data.cc
  ${CMAKE_CURRENT_LIST_DIR}/api.cc
)
# The PidOptions schema, read from the working folder at every capture; tools
# and tests find a copy in the build folder.
configure_file(${CMAKE_SOURCE_DIR}/data/Final.xsd ${CMAKE_BINARY_DIR}/Final.xsd COPYONLY)
