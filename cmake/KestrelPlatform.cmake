# The one place where the build chooses platform code. Every subsystem names
# its platform files by stem; kestrel_platform_sources() appends the suffix of
# the platform being built ("foo" -> "foo_linux.cpp").
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  set(KESTREL_PLATFORM linux)
else()
  message(FATAL_ERROR "libbase has platform code for Linux only (this is ${CMAKE_SYSTEM_NAME})")
endif()

function(kestrel_platform_sources target)
  foreach(stem IN LISTS ARGN)
    target_sources(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/${stem}_${KESTREL_PLATFORM}.cpp)
  endforeach()
endfunction()
