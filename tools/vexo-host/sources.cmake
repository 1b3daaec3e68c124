# build/vexo-host: the host program that loads libVexo.so and runs the service.
add_executable(vexo-host ${CMAKE_CURRENT_LIST_DIR}/main.cc)
target_include_directories(vexo-host PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(vexo-host PRIVATE Threads::Threads ${CMAKE_DL_LIBS})
add_dependencies(vexo-host Vexo)
