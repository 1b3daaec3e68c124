# capture_bench: server-side time of a capture with the simulated scanner,
# beside the cryptographic floor of the same work and openjpeg's encoding.
add_executable(capture_bench ${CMAKE_CURRENT_LIST_DIR}/capture_bench.cc)
target_link_libraries(capture_bench PRIVATE vexo_internal)
target_include_directories(capture_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_compile_definitions(capture_bench PRIVATE VEXO_REFDLL_DIR="${VEXO_REFDLL_DIR}")
add_dependencies(capture_bench vexo_sim)
