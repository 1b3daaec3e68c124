# Sources of src/rd_core.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/aes.cc
)
