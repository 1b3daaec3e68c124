# The host program and the Management server: its plan as a unit, and
# vexo-host as a child process against the reference server as a child process.
add_executable(host_plan_test host_plan_test.cc ${CMAKE_SOURCE_DIR}/tools/vexo-host/mgmt_plan.cc)
target_include_directories(host_plan_test PRIVATE ${CMAKE_SOURCE_DIR}/tools/vexo-host)
target_link_libraries(host_plan_test PRIVATE GTest::gtest_main)
gtest_discover_tests(host_plan_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)

if(TARGET vexo-mgmt-server)
  vexo_add_test(host_mgmt_test host_mgmt_test.cc LOCKS ports fifo)
  add_dependencies(host_mgmt_test vexo-mgmt-server vexo-host vexoctl vexo_sim Vexo)
  target_link_libraries(host_mgmt_test PRIVATE PkgConfig::OPENSSL)
endif()
