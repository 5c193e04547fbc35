# Small helpers shared by every CMakeLists of the project.

# Our own code builds with every warning as an error.
function(cimcore_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# cimcore_component(NAME SOURCES <globs...> DEPENDS <components or targets...>)
# declares the object library cimcore_NAME. A component with no source yet is
# skipped, so the tree builds while it grows.
function(cimcore_component name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  set(globs)
  foreach(pattern IN LISTS ARG_SOURCES)
    list(APPEND globs ${PROJECT_SOURCE_DIR}/${pattern})
  endforeach()
  file(GLOB sources CONFIGURE_DEPENDS ${globs})
  if(NOT sources)
    return()
  endif()
  set(target cimcore_${name})
  add_library(${target} OBJECT ${sources})
  target_include_directories(${target} PUBLIC
    ${PROJECT_SOURCE_DIR}/include ${CIMCORE_INTERNAL_ROOT})
  target_compile_features(${target} PUBLIC cxx_std_17)
  cimcore_warnings(${target})
  set(closure ${target})
  foreach(dep IN LISTS ARG_DEPENDS)
    if(TARGET cimcore_${dep})
      set(dep cimcore_${dep})
    endif()
    target_link_libraries(${target} PUBLIC ${dep})
    get_property(depClosure GLOBAL PROPERTY CIMCORE_CLOSURE_${dep})
    if(depClosure)
      list(APPEND closure ${depClosure})
    elseif(dep STREQUAL "cimcore_platform" AND TARGET cimcore_platform)
      list(APPEND closure cimcore_platform)
    endif()
  endforeach()
  list(REMOVE_DUPLICATES closure)
  set_property(GLOBAL PROPERTY CIMCORE_CLOSURE_${target} ${closure})
  set(CIMCORE_COMPONENTS ${CIMCORE_COMPONENTS} ${name} PARENT_SCOPE)
endfunction()

# The object libraries a program must link to use component NAME (objects of
# object libraries reach only the targets that list them directly).
function(cimcore_component_closure name out)
  get_property(closure GLOBAL PROPERTY CIMCORE_CLOSURE_cimcore_${name})
  set(${out} ${closure} PARENT_SCOPE)
endfunction()
