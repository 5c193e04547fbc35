# cim-logctl run as a user would: the test starts the built binary.
if(TARGET cim-logctl AND TARGET cimcore_base)
  cimcore_component_closure(base cimlogctl_test_objects)
  add_executable(CimLogctlTest ${CMAKE_CURRENT_SOURCE_DIR}/tools/CimLogctlTest.cpp)
  target_link_libraries(CimLogctlTest PRIVATE ${cimlogctl_test_objects} cimcore_test_support)
  target_compile_definitions(CimLogctlTest PRIVATE CIM_LOGCTL_PATH="${CIMCORE_TEST_LAUNCHER} $<TARGET_FILE:cim-logctl>")
  add_dependencies(CimLogctlTest cim-logctl)
  cimcore_warnings(CimLogctlTest)
  gtest_discover_tests(CimLogctlTest
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 ENVIRONMENT "${CIMCORE_SANITIZER_ENV}")
endif()
