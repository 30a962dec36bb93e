# The kinds of binary that the product is made of.

# vorl_version_resource(TARGET DESCRIPTION): a version resource fed from the project's version.
function(vorl_version_resource target description)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(VORL_FILE_TYPE VFT_APP)
    set(VORL_FILE_NAME "${target}.exe")
  else()
    set(VORL_FILE_TYPE VFT_DLL)
    set(VORL_FILE_NAME "${target}.dll")
  endif()
  set(VORL_FILE_DESCRIPTION "${description}")
  set(resource "${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/version.rc.in" "${resource}" @ONLY)
  target_sources(${target} PRIVATE "${resource}")
endfunction()

# vorl_dll(TARGET DEF SOURCES...): a library whose export table is what DEF says (ordinals without
# names where DEF says NONAME), called TARGET.dll without a prefix.
function(vorl_dll target definition)
  add_library(${target} SHARED ${ARGN} "${definition}")
  set_target_properties(${target} PROPERTIES PREFIX "")
  target_link_libraries(${target} PRIVATE vorl_flags)
endfunction()

# vorl_stage(TARGET): puts the binary into the staged installation.
function(vorl_stage target)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
endfunction()
