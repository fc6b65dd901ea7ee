# Compiler and linker flags for everything built here.
add_library(qmx_flags INTERFACE)
target_compile_options(qmx_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -fno-common)
if(QMX_WERROR)
  target_compile_options(qmx_flags INTERFACE -Werror)
endif()

if(QMX_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
if(QMX_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "None")
  add_compile_options(-O1 -g1)  # builds in a third of the time, and traces stay readable
endif()
if(QMX_SANITIZE)
  # Instrumented code looks uninitialised to gcc where it is not.
  target_compile_options(qmx_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_compile_options(-fsanitize=${QMX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QMX_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release" OR CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  # Firmware is attacked through the files it plays: hardening is part of the release build.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong)
  # Jumps and returns land only where they are meant to; older cores take the marks as hints to do nothing.
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    add_compile_options(-mbranch-protection=standard)
  elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    add_compile_options(-fcf-protection)
  endif()
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  # Out-of-line atomics would bring a constructor that runs at load, to look which instructions there are.
  add_compile_options(-mno-outline-atomics)
endif()
