# Release libraries carry no debug info themselves: it lies beside them in <library>.debug, where a debugger and
# abidiff find it by the link that stays in the library. `objects` is the target that compiles the sources.
function(qmx_keep_debug_info_apart target objects)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Release" OR QMX_SANITIZE OR QMX_COVERAGE)
    return()
  endif()
  target_compile_options(${objects} PRIVATE -g)
  set(debug "$<TARGET_FILE:${target}>.debug")
  add_custom_command(TARGET ${target} POST_BUILD VERBATIM
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> ${debug}
    COMMAND ${CMAKE_STRIP} --strip-unneeded $<TARGET_FILE:${target}>
    COMMAND ${CMAKE_OBJCOPY} --remove-section=.comment --add-gnu-debuglink=${debug} $<TARGET_FILE:${target}>)
  set_target_properties(${target} PROPERTIES QMX_DEBUG_FILE ${debug})
endfunction()
