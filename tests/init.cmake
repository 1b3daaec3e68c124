# The shared library's export table.
add_test(NAME LibraryExportsOnlyThePublicFunctions
         COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/exports_test.sh $<TARGET_FILE:Vexo>)

# Start-up on working folders laid out by vexoctl, and the host program.
vexo_add_test(init_test init_test.cc LOCKS ports fifo)
add_dependencies(init_test vexo_sim vexoctl vexo-host Vexo)
