# Sanitizer flags apply to everything the build produces (library, plug-ins,
# tools and tests), so that a plug-in loaded by a sanitized test is checked too.
function(lumiflux_apply_sanitizers)
  if(LUMIFLUX_SANITIZE STREQUAL "")
    return()
  endif()
  set(flags -fsanitize=${LUMIFLUX_SANITIZE} -fno-omit-frame-pointer -g)
  if(LUMIFLUX_SANITIZE MATCHES "undefined")
    list(APPEND flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${flags})
  add_link_options(-fsanitize=${LUMIFLUX_SANITIZE})
endfunction()

# A plug-in module: a MODULE library written into the build tree's plug-in
# directory and installed into the directory the library scans by default.
function(lumiflux_add_plugin name)
  add_library(${name} MODULE ${ARGN})
  set_target_properties(${name} PROPERTIES
    PREFIX ""
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LIBRARY_OUTPUT_DIRECTORY "${LUMIFLUX_BUILD_PLUGIN_DIR}")
  # Plug-ins are built on the public headers only, as out-of-tree ones are.
  target_link_libraries(${name} PRIVATE lumiflux)
  install(TARGETS ${name} LIBRARY DESTINATION "${LUMIFLUX_DEFAULT_PLUGIN_DIR}")
endfunction()
