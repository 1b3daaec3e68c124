# Sources of src/init.
list(APPEND VEXO_SOURCES
)
include(${CMAKE_CURRENT_LIST_DIR}/sources_config.cmake)
list(APPEND VEXO_SOURCES ${CMAKE_CURRENT_LIST_DIR}/init.cc)
