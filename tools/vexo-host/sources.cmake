# build/vexo-host: the host program that loads libVexo.so, runs the service and
# follows the Management server.
add_executable(vexo-host ${CMAKE_CURRENT_LIST_DIR}/main.cc ${CMAKE_CURRENT_LIST_DIR}/mgmt_loop.cc
                         ${CMAKE_CURRENT_LIST_DIR}/mgmt_plan.cc)
target_include_directories(vexo-host PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(vexo-host PRIVATE Threads::Threads ${CMAKE_DL_LIBS})
add_dependencies(vexo-host Vexo)
