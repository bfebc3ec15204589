# add_library_pair(NAME SOURCES ... SMALL_SOURCES ... PUBLIC_HEADERS ...): builds
# the shared library NAME and the static library NAME_static from the same
# objects. What the shared one exports is listed in NAME.map beside its sources.
# Both have the names under which other projects find them installed, NAME::NAME
# and NAME::NAME_static.
#
# SOURCES are those that work on each byte of a request and are made fast; the
# others are made small, since the pages that they take cost more than they do.
function(add_library_pair name)
  cmake_parse_arguments(ARG "" "" "SOURCES;SMALL_SOURCES;PUBLIC_HEADERS" ${ARGN})
  list(TRANSFORM ARG_PUBLIC_HEADERS PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/")
  set(map "${CMAKE_CURRENT_SOURCE_DIR}/${name}.map")

  add_library(${name}_objects OBJECT ${ARG_SOURCES} ${ARG_SMALL_SOURCES})
  set_source_files_properties(${ARG_SOURCES}
    PROPERTIES COMPILE_OPTIONS "$<$<CONFIG:Release>:-O2>")
  set_source_files_properties(${ARG_SMALL_SOURCES}
    PROPERTIES COMPILE_OPTIONS "$<$<CONFIG:Release>:-Os>")
  target_include_directories(${name}_objects PUBLIC "${ZANCGI_INCLUDE_DIR}")

  add_library(${name} SHARED)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS "${map}"
    # The same bytes in any folder.
    BUILD_RPATH_USE_ORIGIN ON
    PUBLIC_HEADER "${ARG_PUBLIC_HEADERS}")
  target_link_options(${name} PRIVATE
    "LINKER:--version-script=${map}" "LINKER:--as-needed"
    # A front end is started for each request, and what a start costs is page
    # faults and looking symbols up: fewer segments, and what the library has
    # itself is not looked up elsewhere.
    "LINKER:-z,noseparate-code" "LINKER:-Bsymbolic")
  harden(${name}_objects)
  harden_linking(${name})
  if(NOT ZANCGI_SANITIZE)
    target_link_options(${name} PRIVATE "LINKER:-z,defs")
  endif()

  add_library(${name}_static STATIC)
  set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name})

  foreach(library ${name} ${name}_static)
    target_sources(${library} PRIVATE $<TARGET_OBJECTS:${name}_objects>)
    target_include_directories(${library} PUBLIC
      "$<BUILD_INTERFACE:${ZANCGI_INCLUDE_DIR}>")
    add_library(${name}::${library} ALIAS ${library})
  endforeach()
endfunction()
