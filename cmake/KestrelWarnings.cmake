# Warning flags for the project's own targets. Third-party headers (Qt,
# GoogleTest) come in as system includes, so only our code is held to these.
function(kestrel_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic
    -Wnon-virtual-dtor -Wcast-align -Wformat=2 -Wimplicit-fallthrough
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
  if(KESTREL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
option(KESTREL_WERROR "Treat warnings in the project's own code as errors" OFF)
