# build/vexo-mgmt-server: the reference Management server. It shares only the
# message protection (rds_hash) with the library; its JSON is its own.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
add_executable(vexo-mgmt-server
  ${CMAKE_CURRENT_LIST_DIR}/main.cc
  ${CMAKE_CURRENT_LIST_DIR}/server.cc
  ${CMAKE_CURRENT_LIST_DIR}/messages.cc
  ${CMAKE_CURRENT_LIST_DIR}/registry.cc
  ${CMAKE_CURRENT_LIST_DIR}/crypto.cc
  ${CMAKE_CURRENT_LIST_DIR}/protect.cc
)
target_compile_definitions(vexo-mgmt-server PRIVATE
  VEXO_MGMT_DATA_DIR="${CMAKE_SOURCE_DIR}/data/mgmt")
target_link_libraries(vexo-mgmt-server PRIVATE
  vexo_internal PkgConfig::HTTPLIB PkgConfig::SQLITE3 PkgConfig::JSONC PkgConfig::OPENSSL)
