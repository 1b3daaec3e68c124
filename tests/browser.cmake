# The integrators' test page (web/) in headless Chromium against a real
# vexo-host: over HTTP, over HTTPS trusted through a temporary NSS database,
# and the pre-flight of a public page. Debian's python3 runs them, because
# python3-selenium is installed for it. Exit code 77 (skipped) only when
# Chromium, chromedriver or Selenium is missing.
find_program(VEXO_SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(VEXO_SYSTEM_PYTHON)
  foreach(case http https preflight)
    add_test(NAME BrowserPage.${case}
             COMMAND ${VEXO_SYSTEM_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/browser/rd_browser_test.py
                     --build ${CMAKE_BINARY_DIR} --source ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(BrowserPage.${case} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 120
                         RESOURCE_LOCK "ports;fifo")
  endforeach()
endif()
