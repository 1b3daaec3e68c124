# Fingerprint acquisition, JPEG 2000 compression and Pid block assembly.
set(VEXO_AUTH_PROTO ${CMAKE_CURRENT_LIST_DIR}/auth.proto)
set(VEXO_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
add_custom_command(
  OUTPUT ${VEXO_GENERATED_DIR}/auth.pb-c.c ${VEXO_GENERATED_DIR}/auth.pb-c.h
  COMMAND ${CMAKE_COMMAND} -E make_directory ${VEXO_GENERATED_DIR}
  COMMAND ${PROTOC_C} --c_out=${VEXO_GENERATED_DIR} -I${CMAKE_CURRENT_LIST_DIR} ${VEXO_AUTH_PROTO}
  DEPENDS ${VEXO_AUTH_PROTO}
  COMMENT "Generating the Pid protobuf code"
  VERBATIM)

list(APPEND VEXO_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/opj_compress.cc
  ${CMAKE_CURRENT_LIST_DIR}/pidblock_A600.cc
  ${CMAKE_CURRENT_LIST_DIR}/pidblock.cc
  ${CMAKE_CURRENT_LIST_DIR}/protobuf_rd.cc
  ${VEXO_GENERATED_DIR}/auth.pb-c.c
  ${VEXO_GENERATED_DIR}/auth.pb-c.h
)
# The generated header must exist before the files that include it compile.
set_source_files_properties(
  ${CMAKE_CURRENT_LIST_DIR}/protobuf_rd.cc
  PROPERTIES OBJECT_DEPENDS ${VEXO_GENERATED_DIR}/auth.pb-c.h)
