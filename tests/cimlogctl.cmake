# cim-logctl run as a user would: the test starts the built binary.
if(TARGET cim-logctl)
  cimcore_add_test(tools/CimLogctlTest.cpp LINKS cimcore)
  target_compile_definitions(CimLogctlTest PRIVATE CIM_LOGCTL_PATH="${CIMCORE_TEST_LAUNCHER} $<TARGET_FILE:cim-logctl>")
  add_dependencies(CimLogctlTest cim-logctl)
endif()
