# Sources of src/platform: one file per area, picked for the host system.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/posix/clock.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/pipe.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/dynlib.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/random.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/files.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/pages.cc
)
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/posix/socket.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/lock.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/netif.cc
  ${CMAKE_CURRENT_LIST_DIR}/posix/fileid.cc
)
