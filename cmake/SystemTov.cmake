# The base library as the site has installed it, with its own headers.
find_path(ZANCGI_TOV_INCLUDE_DIR tov/str.h REQUIRED NO_CMAKE_PATH)
find_library(ZANCGI_TOV_LIBRARY tov REQUIRED NO_CMAKE_PATH)
add_library(tov SHARED IMPORTED GLOBAL)
set_target_properties(tov PROPERTIES
  IMPORTED_LOCATION "${ZANCGI_TOV_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${ZANCGI_TOV_INCLUDE_DIR}")
