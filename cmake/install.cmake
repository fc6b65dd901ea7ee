# cmake --install: libraries, headers, pkg-config and CMake packages, documentation, the command with man page
# and completion. Components as the packages are cut: library, development, command; and debug for the debug info.
include(CMakePackageConfigHelpers)

set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/qmxutil)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qmxutil)

# Directories are for everybody, whatever the umask of whoever installs (packages are made under one of their own).
set(directories ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${package_dir} ${header_dir}
  ${CMAKE_INSTALL_DOCDIR}/docs ${CMAKE_INSTALL_DOCDIR}/examples)
get_target_property(debug qmxutil QMX_DEBUG_FILE)
if(debug)
  list(APPEND directories ${CMAKE_INSTALL_LIBDIR}/.debug)
endif()
if(QMX_BUILD_TOOL)
  list(APPEND directories
    ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_MANDIR}/man1 ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    ${CMAKE_INSTALL_DATADIR}/zsh/site-functions ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endif()
list(TRANSFORM directories PREPEND "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/")
list(JOIN directories "\" \"" directories)
install(CODE "execute_process(COMMAND sh -c [[umask 022 && mkdir -p \"$@\"]] sh \"${directories}\")")

set(libraries qmxutil)
if(NOT QMX_BASE_LIBRARY)
  list(APPEND libraries qmxbase)
endif()
target_include_directories(qmx_headers INTERFACE $<INSTALL_INTERFACE:${header_dir}>)
set_target_properties(qmx_headers PROPERTIES EXPORT_NAME headers)
install(TARGETS ${libraries} qmx_headers EXPORT qmxutil-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
foreach(library ${libraries})
  get_target_property(debug ${library} QMX_DEBUG_FILE)
  if(debug)
    install(FILES ${debug} DESTINATION ${CMAKE_INSTALL_LIBDIR}/.debug COMPONENT debug)
  endif()
endforeach()

install(DIRECTORY include/ base/ DESTINATION ${header_dir} COMPONENT development FILES_MATCHING PATTERN "*.h")
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.md" PATTERN "*.c" PATTERN "*.cpp" PATTERN "CMakeLists.txt"
  PATTERN "base_library" EXCLUDE)
install(FILES CHANGELOG.md LICENSE README.md SECURITY.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

# The files find their prefix from where they lie, so that an installed tree can be moved.
file(RELATIVE_PATH to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
if(QMX_BASE_LIBRARY)
  set(base_libs "\"${QMX_BASE_LIBRARY}\"")
else()
  set(base_libs "-L\${libdir} -lqmxbase")
endif()
foreach(name qmxutil qmxbase)
  configure_file(cmake/${name}.pc.in cmake/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cmake/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

install(EXPORT qmxutil-targets NAMESPACE qmxutil:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/qmxutil-config.cmake.in cmake/qmxutil-config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(cmake/qmxutil-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cmake/qmxutil-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/cmake/qmxutil-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

if(QMX_BUILD_TOOL)
  file(RELATIVE_PATH to_libraries /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
  set_target_properties(qmxutil_command PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
  install(TARGETS qmxutil_command DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
  install(FILES docs/qmxutil.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
  install(FILES tools/qmxutil.bash-completion RENAME qmxutil
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT command)
  install(FILES tools/qmxutil.zsh-completion RENAME _qmxutil
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT command)
  install(FILES tools/qmxutil.fish-completion RENAME qmxutil.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT command)
endif()
