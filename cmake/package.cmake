# cpack -G DEB: libqmxutil1, libqmxutil-dev, qmxutil (the command) and libqmxutil1-dbg, for the architecture built.
set(CPACK_PACKAGE_NAME qmxutil)
set(CPACK_PACKAGE_VENDOR qmxutil)
set(CPACK_PACKAGE_CONTACT "The qmxutil developers <qmxutil@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Audio, video, text, INI, process and usage utilities for embedded Linux")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL library development command debug)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libqmxutil${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqmxutil-dev)
set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME qmxutil)
set(CPACK_DEBIAN_DEBUG_PACKAGE_NAME libqmxutil${PROJECT_VERSION_MAJOR}-dbg)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(about "It tells what audio and video streams and recordings are from their headers, converts
decoder configuration, cuts elementary streams into frames, and looks after text, INI
settings, child processes, signals, timers, CPU and memory figures. Plain C interface.")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "${about}
.
This package holds the library, and the base library that stands in for a device's own.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${about}
.
This package holds the headers, what pkg-config and CMake need, documentation and examples.")
set(CPACK_COMPONENT_COMMAND_DESCRIPTION "${about}
.
This package holds the command qmxutil, which makes all of that usable from a shell.")
set(CPACK_COMPONENT_DEBUG_DESCRIPTION "${about}
.
This package holds what a debugger needs to know of the library.")
# Only in packages, which are made component by component.
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} part)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE RENAME copyright COMPONENT ${component} EXCLUDE_FROM_ALL
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${part}_PACKAGE_NAME})
endforeach()

set(same_version "libqmxutil${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_version}")
set(CPACK_DEBIAN_DEBUG_PACKAGE_DEPENDS "${same_version}")
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "${same_version}")
# The shell, find, which and pidof, which the library runs, are in every Debian system.
if(CMAKE_CROSSCOMPILING)
  # The host's package database does not know the device's libraries.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libc6 (>= 2.34)")
  string(APPEND CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS ", libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 12)")
else()
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_COMMAND_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/src ${CMAKE_BINARY_DIR}/platform)
endif()

include(CPack)
