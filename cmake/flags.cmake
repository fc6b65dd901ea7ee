# Compiler and linker flags for everything built here.
add_library(qmx_flags INTERFACE)
target_compile_options(qmx_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -fno-common)
if(QMX_WERROR)
  target_compile_options(qmx_flags INTERFACE -Werror)
endif()

if(QMX_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(QMX_SANITIZE)
  add_compile_options(-fsanitize=${QMX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QMX_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release" OR CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  # Firmware is attacked through the files it plays: hardening is part of the release build.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
