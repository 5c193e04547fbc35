# Every header compiles on its own: one generated source per header, built
# with the tests.
file(GLOB_RECURSE cimcore_headers CONFIGURE_DEPENDS
  RELATIVE ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/include/cimcore/*.h ${PROJECT_SOURCE_DIR}/internal/*.h)
set(header_sources)
foreach(header IN LISTS cimcore_headers)
  string(REGEX REPLACE "^include/" "" include_path ${header})
  string(REGEX REPLACE "^internal/" "cimcore/internal/" include_path ${include_path})
  string(MAKE_C_IDENTIFIER ${include_path} name)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/header_check/${name}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "#include <${include_path}>\n")
  list(APPEND header_sources ${source})
endforeach()
add_library(cimcore_header_check OBJECT ${header_sources})
target_link_libraries(cimcore_header_check PRIVATE cimcore)
cimcore_warnings(cimcore_header_check)
