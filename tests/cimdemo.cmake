# The demo run as a user would: it must succeed and every line it logs must be
# in the host log's format.
if(TARGET cim-demo)
  add_executable(CimDemoTest ${CMAKE_CURRENT_SOURCE_DIR}/tools/CimDemoTest.cpp)
  target_link_libraries(CimDemoTest PRIVATE cimcore_test_support cimcore)
  target_compile_definitions(CimDemoTest PRIVATE CIM_DEMO_PATH="${CIMCORE_TEST_LAUNCHER} $<TARGET_FILE:cim-demo>")
  add_dependencies(CimDemoTest cim-demo)
  cimcore_warnings(CimDemoTest)
  gtest_discover_tests(CimDemoTest DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 240)
endif()
