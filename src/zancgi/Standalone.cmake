# zancgi_standalone: a front end from the same archives with the C library inside,
# too, so that the loader has nothing to do.
include(CheckCXXSourceCompiles)

# As a static PIE it moves its own pointers at each start. Packed, where they
# lie takes a page instead of ten. The C library can read that since 2.36.
set(CMAKE_REQUIRED_LINK_OPTIONS
  -static-pie -Wl,-z,pack-relative-relocs,--fatal-warnings)
check_cxx_source_compiles("
  #include <features.h>
  #if !__GLIBC_PREREQ(2, 36)
  #error
  #endif
  int main() {}" ZANCGI_PACKS_RELOCATIONS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)
set(standalone_options ${front_end_options})
if(ZANCGI_PACKS_RELOCATIONS)
  string(APPEND standalone_options ,-z,pack-relative-relocs)
endif()

# Its own archive holds only what refuses accounts, and is searched first.
add_library(zancgi_standalone STATIC standalone.cpp)
add_library(zancgi::zancgi_standalone ALIAS zancgi_standalone)
harden(zancgi_standalone)
target_include_directories(zancgi_standalone PUBLIC
  "$<BUILD_INTERFACE:${ZANCGI_INCLUDE_DIR}>")
# The other archive by its path: its target brings the options along by which
# the C library stays shared. -static-pie is among the libraries because CMake
# puts a -pie of its own after all options, and the last of them counts.
add_dependencies(zancgi_standalone zancgi_static)
target_link_libraries(zancgi_standalone INTERFACE
  -static-pie $<TARGET_FILE:$<TARGET_NAME:zancgi_static>> tov::tov_static)
target_link_options(zancgi_standalone INTERFACE ${standalone_options})
set_target_properties(zancgi_standalone PROPERTIES
  INTERFACE_POSITION_INDEPENDENT_CODE ON)
