# add_library_pair(NAME SOURCES ...): builds the shared library NAME and the
# static library NAME_static from the same objects. What the shared one exports
# is listed in NAME.map beside its sources.
function(add_library_pair name)
  cmake_parse_arguments(ARG "" "" "SOURCES" ${ARGN})
  set(map "${CMAKE_CURRENT_SOURCE_DIR}/${name}.map")

  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_include_directories(${name}_objects PUBLIC "${PROJECT_SOURCE_DIR}/src")

  add_library(${name} SHARED)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION 1
    LINK_DEPENDS "${map}")
  target_link_options(${name} PRIVATE
    "LINKER:--version-script=${map}" "LINKER:--as-needed")
  if(NOT ZANCGI_SANITIZE)
    target_link_options(${name} PRIVATE "LINKER:-z,defs")
  endif()

  add_library(${name}_static STATIC)
  set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name})

  foreach(library ${name} ${name}_static)
    target_link_libraries(${library} PRIVATE ${name}_objects)
    target_include_directories(${library} PUBLIC "${PROJECT_SOURCE_DIR}/src")
  endforeach()
endfunction()
