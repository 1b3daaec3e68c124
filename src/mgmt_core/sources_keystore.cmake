# Sources of the device keystore (src/mgmt_core).
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/keystore.cc
  ${CMAKE_CURRENT_LIST_DIR}/keystore_cert.cc
  ${CMAKE_CURRENT_LIST_DIR}/keystore_password.cc
)
