# Sources of src/mgmt_core.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/Base64Encode.cc
  ${CMAKE_CURRENT_LIST_DIR}/Base64Decode.cc
  ${CMAKE_CURRENT_LIST_DIR}/download.cc
  ${CMAKE_CURRENT_LIST_DIR}/download_manager.cc
  ${CMAKE_CURRENT_LIST_DIR}/mgmt_api.cc
)
include(${CMAKE_CURRENT_LIST_DIR}/sources_keystore.cmake)
