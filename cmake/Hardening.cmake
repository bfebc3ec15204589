# What is done for the day on which something is wrong in the libraries, which
# may be root: they are compiled so that an overrun ends the process, and that
# no jump lands where none should.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

# What the distribution or the compiler itself demands stays as it is.
check_cxx_source_compiles("
  #ifdef _FORTIFY_SOURCE
  #error
  #endif
  int main() {}" ZANCGI_CHOOSES_FORTIFY)

# Clang has it without further words since version 16.
check_cxx_compiler_flag(-ftrivial-auto-var-init=zero ZANCGI_CAN_ZERO_VARIABLES)

# harden(TARGET): compiles it so.
function(harden target)
  foreach(option -fstack-protector-strong -fstack-clash-protection
      -fcf-protection)
    string(REGEX MATCH "^-f[a-z]+-[a-z]+" kind "${option}")
    if(NOT CMAKE_CXX_FLAGS MATCHES "${kind}")
      target_compile_options(${target} PRIVATE ${option})
    endif()
  endforeach()
  # What is read before it is set is zero. Sanitizers find such a read, unless it
  # is zero. _GLIBCXX_ASSERTIONS would cost a start a hundredth of its
  # instructions, and a large form a thirtieth.
  if(ZANCGI_CAN_ZERO_VARIABLES AND NOT ZANCGI_SANITIZE)
    target_compile_options(${target} PRIVATE -ftrivial-auto-var-init=zero)
  endif()
  # It checks nothing where nothing is optimised; sanitizers check the same.
  if(ZANCGI_CHOOSES_FORTIFY AND NOT ZANCGI_SANITIZE)
    target_compile_definitions(${target} PRIVATE
      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:_FORTIFY_SOURCE=3>)
  endif()
endfunction()

# harden_linking(TARGET): links a shared library so that what it calls cannot be
# exchanged, its code not written, and its data not run.
function(harden_linking target)
  target_link_options(${target} PRIVATE
    "LINKER:-z,relro,-z,now,-z,noexecstack,-z,text")
endfunction()
