# Sources of src/web_service.
# Management JSON messages and the transport to the Management server.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/json/json_frame_parse.cc
  ${CMAKE_CURRENT_LIST_DIR}/auth_format.cc
  ${CMAKE_CURRENT_LIST_DIR}/curl_api.cc
)

# The SHA-256 of the CA file deployed as cert/server.crt. The default is the
# project's demonstration CA (data/mgmt/ca.crt); a maker builds with the digest
# of its own CA file: -DVEXO_MGMT_CA_SHA256=$(sha256sum ca.crt | cut -c1-64)
set(VEXO_MGMT_CA_SHA256 "1db7be38fc1181e0b87165f4968c6d05491ffcf30f2fe58546d3059490e375d8"
    CACHE STRING "SHA-256 of the Management CA file cert/server.crt (64 lower-case hex digits)")
if(NOT VEXO_MGMT_CA_SHA256 MATCHES "^[0-9a-f]+$")
  message(FATAL_ERROR "VEXO_MGMT_CA_SHA256 must be 64 lower-case hexadecimal digits")
endif()
string(LENGTH "${VEXO_MGMT_CA_SHA256}" _vexo_pin_length)
if(NOT _vexo_pin_length EQUAL 64)
  message(FATAL_ERROR "VEXO_MGMT_CA_SHA256 must be 64 lower-case hexadecimal digits")
endif()
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/curl_api.cc PROPERTIES
  COMPILE_DEFINITIONS "VEXO_MGMT_CA_SHA256=\"${VEXO_MGMT_CA_SHA256}\"")
