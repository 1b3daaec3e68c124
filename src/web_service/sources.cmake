# Sources of src/web_service.
# Management JSON messages.
list(APPEND VEXO_SOURCES ${CMAKE_CURRENT_LIST_DIR}/json/json_frame_parse.cc)
