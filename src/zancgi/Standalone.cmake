# zancgi_standalone: the same archives and the C library in one static program,
# which needs no loader.
include(CheckCXXSourceCompiles)

# A static PIE relocates its own pointers at each start. Packed, the relocation
# table takes one page instead of ten. The C library supports this since 2.36.
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

# This archive holds only the functions that refuse accounts, and is searched
# first.
add_library(zancgi_standalone STATIC standalone.cpp)
add_library(zancgi::zancgi_standalone ALIAS zancgi_standalone)
harden(zancgi_standalone)
target_include_directories(zancgi_standalone PUBLIC
  "$<BUILD_INTERFACE:${ZANCGI_INCLUDE_DIR}>")
# The other archive is named by its path, because its target would add the
# options that keep the C library shared. -static-pie is among the libraries
# because CMake adds a -pie of its own after all options, and the last one
# counts.
add_dependencies(zancgi_standalone zancgi_static)
target_link_libraries(zancgi_standalone INTERFACE
  -static-pie $<TARGET_FILE:$<TARGET_NAME:zancgi_static>> tov::tov_static)
target_link_options(zancgi_standalone INTERFACE ${standalone_options})
set_target_properties(zancgi_standalone PROPERTIES
  INTERFACE_POSITION_INDEPENDENT_CODE ON)
