# Sources of rd_lib/src: Management message protection.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/rds_hash.cc
)
