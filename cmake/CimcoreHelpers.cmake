# Small helpers shared by every CMakeLists of the project.

# Our own code builds with every warning as an error.
function(cimcore_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# Stops the configure step unless every listed file exists, naming the first
# that does not: a moved or misspelt source must not drop code or tests.
function(cimcore_require_files what)
  if(NOT ARGN)
    message(FATAL_ERROR "${what}: no source files listed")
  endif()
  foreach(file IN LISTS ARGN)
    if(NOT EXISTS ${file})
      message(FATAL_ERROR "${what}: source file ${file} does not exist")
    endif()
  endforeach()
endfunction()

# cimcore_component(NAME SOURCES <files...> [DEPENDS <components...>] [LIBS <targets...>])
# declares the static, position-independent library cimcore_NAME, compiled
# with hidden visibility and linked whole into the shared library. DEPENDS
# names other components (declared before), LIBS anything else it links.
function(cimcore_component name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;LIBS" ${ARGN})
  list(TRANSFORM ARG_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/)
  cimcore_require_files("component ${name}" ${ARG_SOURCES})
  set(target cimcore_${name})
  add_library(${target} STATIC ${ARG_SOURCES})
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(${target} PUBLIC
    ${PROJECT_SOURCE_DIR}/include ${CIMCORE_INTERNAL_ROOT})
  target_compile_features(${target} PUBLIC cxx_std_17)
  cimcore_warnings(${target})
  foreach(dep IN LISTS ARG_DEPENDS)
    if(NOT TARGET cimcore_${dep})
      message(FATAL_ERROR "component ${name}: unknown component '${dep}'")
    endif()
    target_link_libraries(${target} PUBLIC cimcore_${dep})
  endforeach()
  target_link_libraries(${target} PUBLIC ${ARG_LIBS})
  set_property(GLOBAL APPEND PROPERTY CIMCORE_COMPONENTS ${name})
endfunction()

# The link items for a list of component names; an unknown name stops the
# configure step.
function(cimcore_component_targets out)
  set(targets)
  foreach(name IN LISTS ARGN)
    if(TARGET cimcore_${name})
      list(APPEND targets cimcore_${name})
    elseif(TARGET ${name})
      list(APPEND targets ${name})
    else()
      message(FATAL_ERROR "unknown component or target '${name}'")
    endif()
  endforeach()
  set(${out} ${targets} PARENT_SCOPE)
endfunction()
