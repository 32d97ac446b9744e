# Applies KESTREL_SANITIZE to every target of the build. Recovery is off, so
# the first report fails the test that caused it.
if(KESTREL_SANITIZE)
  list(JOIN KESTREL_SANITIZE "," _kestrel_sanitizers)
  add_compile_options(-fsanitize=${_kestrel_sanitizers} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${_kestrel_sanitizers})
  add_compile_definitions(KESTREL_SANITIZED=1)
  if("thread" IN_LIST KESTREL_SANITIZE)
    add_compile_definitions(KESTREL_TSAN=1)
  endif()
  if("address" IN_LIST KESTREL_SANITIZE)
    add_compile_definitions(KESTREL_ASAN=1)
  endif()
endif()

# A fuzzing build instruments the library as well as the fuzz targets, so
# that coverage guidance reaches the parsers and the sanitizers watch them.
if(KESTREL_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KESTREL_BUILD_FUZZ needs clang (configure with CC=clang CXX=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=address,undefined)
endif()
