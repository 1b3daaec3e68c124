# Pid block encryption and biometric signatures.
list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/sessionkey.cc
  ${CMAKE_CURRENT_LIST_DIR}/rsa.cc
  ${CMAKE_CURRENT_LIST_DIR}/uidai_certs.cc
  ${CMAKE_CURRENT_LIST_DIR}/EncPIDHash.cc
  ${CMAKE_CURRENT_LIST_DIR}/bio_sign.cc
  ${CMAKE_CURRENT_LIST_DIR}/dig_sign.cc
)

# The UIDAI certificates are built into the library as byte arrays, read in
# binary so that every byte (CR LF line ends, a missing final newline) is kept.
# The generated file is rewritten only when its content changes.
set(vexo_uidai_dir ${CMAKE_SOURCE_DIR}/data/uidai)
set(vexo_uidai_generated ${CMAKE_BINARY_DIR}/generated/uidai_certs_data.cc)
set(vexo_uidai_content "// Generated from data/uidai/*.pem by src/rd_core/sources_crypto.cmake.\n#include <cstddef>\n\n")
foreach(vexo_uidai_name stage preprod prod prod_old)
  set(vexo_uidai_file ${vexo_uidai_dir}/${vexo_uidai_name}.pem)
  set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${vexo_uidai_file})
  file(READ ${vexo_uidai_file} vexo_uidai_hex HEX)
  string(LENGTH "${vexo_uidai_hex}" vexo_uidai_hexlen)
  if(vexo_uidai_hexlen EQUAL 0)
    message(FATAL_ERROR "${vexo_uidai_file} is empty")
  endif()
  math(EXPR vexo_uidai_len "${vexo_uidai_hexlen} / 2")
  # Each pair of hex digits becomes "0xNN,", sixteen to a line.
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," vexo_uidai_bytes "${vexo_uidai_hex}")
  string(REPEAT "0x[0-9a-f][0-9a-f]," 16 vexo_uidai_row)
  string(REGEX REPLACE "(${vexo_uidai_row})" "\\1\n" vexo_uidai_bytes "${vexo_uidai_bytes}")
  string(APPEND vexo_uidai_content
    "extern const unsigned char kUidaiPem_${vexo_uidai_name}[] = {\n${vexo_uidai_bytes}};\n"
    "extern const std::size_t kUidaiPemLen_${vexo_uidai_name} = ${vexo_uidai_len};\n\n")
endforeach()
file(CONFIGURE OUTPUT ${vexo_uidai_generated} CONTENT "${vexo_uidai_content}" @ONLY)
list(APPEND VEXO_SOURCES ${vexo_uidai_generated})
