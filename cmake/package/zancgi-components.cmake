# Beyond the libraries: zancgi::testing, with which front ends are tested, where
# that was installed too.
include("${CMAKE_CURRENT_LIST_DIR}/zancgi-testing-targets.cmake" OPTIONAL)
foreach(component IN LISTS zancgi_FIND_COMPONENTS)
  if(TARGET zancgi::${component})
    set(zancgi_${component}_FOUND TRUE)
  elseif(zancgi_FIND_REQUIRED_${component})
    set(zancgi_FOUND FALSE)
    set(zancgi_NOT_FOUND_MESSAGE "there is no zancgi::${component} in it")
  endif()
endforeach()
