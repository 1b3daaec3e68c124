# The simulated vendor libraries and the loader that uses them.
set(SIM_INCOMPLETE_DIR ${CMAKE_BINARY_DIR}/sim_incomplete)
add_library(sim_incomplete_scanner SHARED sim_incomplete.c)
target_compile_definitions(sim_incomplete_scanner PRIVATE INCOMPLETE_SCANNER)
set_target_properties(sim_incomplete_scanner PROPERTIES
  OUTPUT_NAME AraTrustFinger LIBRARY_OUTPUT_DIRECTORY ${SIM_INCOMPLETE_DIR}/scanner)
add_library(sim_incomplete_handheld SHARED sim_incomplete.c)
target_compile_definitions(sim_incomplete_handheld PRIVATE INCOMPLETE_HANDHELD)
set_target_properties(sim_incomplete_handheld PROPERTIES
  OUTPUT_NAME Tavio LIBRARY_OUTPUT_DIRECTORY ${SIM_INCOMPLETE_DIR}/handheld)

vexo_add_test(sim_test sim_test.cc)
add_dependencies(sim_test vexo_sim sim_incomplete_scanner sim_incomplete_handheld)
target_compile_definitions(sim_test PRIVATE SIM_INCOMPLETE_DIR="${SIM_INCOMPLETE_DIR}")
