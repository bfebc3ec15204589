# Compiler settings of every target in the tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

include(CheckPIESupported)
check_pie_supported()

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow
  # Source names in log lines and errors, and what debuggers are told, must not
  # tell where we were built.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
  "-ffile-prefix-map=${PROJECT_BINARY_DIR}=.")
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # A macro of ours for log lines may have nothing for its "...".
  add_compile_options(-Wno-gnu-zero-variadic-macro-arguments
    "$<$<COMPILE_LANGUAGE:CXX>:-Wreserved-identifier>")
endif()
if(ZANCGI_WERROR)
  add_compile_options(-Werror)
endif()
if(ZANCGI_SANITIZE)
  add_compile_options(-fsanitize=${ZANCGI_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZANCGI_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 warns of std::regex and std::string in instrumented code.
    add_compile_options(-Wno-maybe-uninitialized -Wno-restrict)
  elseif(NOT ZANCGI_BUILD_FUZZERS)
    # Tests replace functions that the sanitizers' runtime also replaces, so the
    # runtime must be a shared library, as GCC's is.
    execute_process(OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE
      COMMAND "${CMAKE_CXX_COMPILER}"
        "-print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so")
    cmake_path(GET runtime PARENT_PATH runtime_dir)
    # The C programs of the benchmarks have another compiler.
    add_link_options("$<$<LINK_LANGUAGE:CXX>:-shared-libasan>"
      "$<$<LINK_LANGUAGE:CXX>:LINKER:-rpath,${runtime_dir}>")
  endif()
endif()
if(ZANCGI_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "The fuzz targets need Clang: use the preset fuzz")
  endif()
  # Coverage in everything, for the fuzz targets to steer by.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(ZANCGI_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "Counting lines needs Clang: use the preset coverage")
  endif()
  # The counters live in a mapped file: they count whatever way a process ends,
  # and behind chroot(2) and setuid(2), too. Whoever a process is by then, it
  # may make its file.
  set(profiles_dir "${PROJECT_BINARY_DIR}/profiles")
  file(MAKE_DIRECTORY "${profiles_dir}")
  file(CHMOD "${profiles_dir}"
    PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_WRITE
      GROUP_EXECUTE WORLD_READ WORLD_WRITE WORLD_EXECUTE)
  add_compile_options(-fcoverage-mapping
    "-fprofile-instr-generate=${profiles_dir}/%p-%m%c.profraw"
    "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(-fprofile-instr-generate)
endif()
