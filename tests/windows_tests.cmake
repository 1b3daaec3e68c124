# The Windows list: the test programs cross-built for Windows and run under
# Wine through CMake's cross-compiling emulator (scripts/windows.sh test ARCH).
# Included by CMakeLists.txt, whose vexo_add_test and helpers it uses.
#
# Wine must not start inside the build (a Wine server started there would
# live in another network namespace than the tests): the test programs are
# listed when CTest runs.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)

# The platform layer against the real Windows calls: atomic replacement and
# owner-only files, file identity, adapters, the pipe, sockets, and the named
# semaphores held across two processes.
set(vexo_win32 ${CMAKE_CURRENT_SOURCE_DIR}/windows)
vexo_add_test(platform_win32_test ${vexo_win32}/platform_win32_test.cc LOCKS scanner_lock)

vexo_add_test(listener_test listener_test.cc LOCKS ports THREADS ListenerTest)
vexo_add_test(dispatch_test dispatch_test.cc LOCKS ports THREADS DispatchTest)
vexo_add_test(tls_test tls_test.cc LOCKS ports THREADS TlsTest)
vexo_add_test(config_test config_test.cc LOCKS scanner_lock)
vexo_add_test(log_test log_test.cc THREADS LogTest)
vexo_add_test(keystore_test keystore_test.cc LOCKS scanner_lock)
vexo_add_sim_test()
vexo_add_test(postauth_test postauth_test.cc LOCKS ports fifo handheld_lock
              THREADS PostAuthTest)
vexo_add_test(pidoptions_test pidoptions_test.cc)
vexo_add_test(piddata_test piddata_test.cc)
vexo_add_test(api_test api_test.cc LOCKS scanner_lock THREADS ApiTest)
vexo_add_test(pidblock_test pidblock_test.cc)
vexo_add_test(capture_test capture_test.cc LOCKS scanner_lock)
vexo_add_test(capture_e2e_test capture_e2e_test.cc LOCKS ports
              THREADS CaptureEndToEnd ManagementEndToEnd)
vexo_add_test(mgmt_protect_test mgmt_protect_test.cc)
vexo_add_test(crypto_test crypto_test.cc)
vexo_add_test(mgmt_json_test mgmt_json_test.cc)
vexo_add_test(mgmt_download_test mgmt_download_test.cc)

add_executable(host_plan_test host_plan_test.cc ${CMAKE_SOURCE_DIR}/tools/vexo-host/mgmt_plan.cc)
target_include_directories(host_plan_test PRIVATE ${CMAKE_SOURCE_DIR}/tools/vexo-host)
target_link_libraries(host_plan_test PRIVATE GTest::gtest_main)
gtest_discover_tests(host_plan_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)

# Vexo.dll's export table, read with objdump on the build machine.
add_test(NAME LibraryExportsOnlyThePublicFunctions
         COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/exports_test.sh $<TARGET_FILE:Vexo>)

# Left out of the Windows list, with the reason:
#   lock_test            POSIX lock files: the lock file's presence, a lock a
#                        killed holder leaves free (a named semaphore is not
#                        freed), handles a forked child inherits. The named
#                        semaphores across processes: platform_win32_test.
#   crash_test           forks a child for every crash point of every rewrite.
#   init_test, host_mgmt_test, vexoctl_test
#                        fork and exec the host and vexoctl, drive the host
#                        with signals and read its FIFO.
#   mgmt_server_test     tests the reference server itself, a Linux program.
#   mgmt_transport_test  its CA-folder cases fork into a private mount namespace.
#   listener_memory_test reads /proc/self/statm.
#   seams_test           the lock folder at rest is a POSIX path (/run/vexo or
#                        /tmp); Windows has named semaphores instead.
#   fuzz replays, LayeringCheck, browser tests: checks of the sources and of
#                        Linux programs, run by the Linux stages.
