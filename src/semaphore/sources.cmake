# Sources of src/semaphore.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/semaphore_syc.cc
  ${CMAKE_CURRENT_LIST_DIR}/semaphore_Tavio.cc
)
