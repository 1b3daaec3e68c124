# Configuration files, their seal and the exported setters.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/config.cc
  ${CMAKE_CURRENT_LIST_DIR}/config_setters.cc
)
