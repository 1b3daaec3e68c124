# Loader of the scanner maker's and the handheld device's libraries.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/scanner.cc
)
