# The kinds of binary that the product is made of.

# vorl_version_resource(TARGET DESCRIPTION): a version resource fed from the project's version and
# company; a program also gets the manifest that all programs share.
function(vorl_version_resource target description)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(VORL_FILE_TYPE VFT_APP)
    set(VORL_FILE_NAME "${target}.exe")
    if(MSVC)
      target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/cmake/program.manifest")
    else()
      set(manifest "${PROJECT_SOURCE_DIR}/cmake/program_manifest.rc")
      set_source_files_properties("${manifest}" PROPERTIES OBJECT_DEPENDS
                                                "${PROJECT_SOURCE_DIR}/cmake/program.manifest")
      target_sources(${target} PRIVATE "${manifest}")
    endif()
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

# vorl_library(TARGET DEF SOURCES...): as vorl_dll, for an in-house library that does nothing while it
# is loaded. No exceptions, no type information and none of the C++ runtime behind them: a use of it
# is an error of the linker. Instead of the compiler's own start-up code it has the few lines of
# companions/common/library_start.cpp. Static libraries that go into one are built with
# vorl_library_flags, too.
function(vorl_library target definition)
  vorl_dll(${target} ${definition} ${ARGN})
  target_link_libraries(${target} PRIVATE vorl_library_flags)
  # Lines are counted by code that needs the compiler's start.
  if(NOT MSVC AND NOT VORL_COVERAGE)
    target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/companions/common/library_start.cpp")
    set_source_files_properties("${PROJECT_SOURCE_DIR}/companions/common/library_start.cpp"
                                PROPERTIES COMPILE_OPTIONS
                                           "-fno-stack-protector;-U_FORTIFY_SOURCE")
    target_link_options(${target} PRIVATE -nostartfiles -nodefaultlibs
                        -Wl,--entry,LibraryStart)
  endif()
endfunction()

# vorl_stage(TARGET): puts the binary into the staged installation. Its debug information goes into a
# file of its own, symbols/NAME.debug; both carry the build identifier that the linker made.
function(vorl_stage target)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin"
                                             VORL_STAGED ON)
  if(NOT MSVC AND CMAKE_BUILD_TYPE STREQUAL "Release")
    set(symbols "${PROJECT_BINARY_DIR}/symbols")
    file(MAKE_DIRECTORY "${symbols}")
    add_custom_command(
      TARGET ${target}
      POST_BUILD
      # Both tools would write the time of day into the header.
      COMMAND "${CMAKE_COMMAND}" -E env SOURCE_DATE_EPOCH=0 "${CMAKE_OBJCOPY}" --only-keep-debug
              "$<TARGET_FILE:${target}>" "${symbols}/$<TARGET_FILE_NAME:${target}>.debug"
      COMMAND "${CMAKE_COMMAND}" -E env SOURCE_DATE_EPOCH=0 "${CMAKE_STRIP}" --strip-all
              "$<TARGET_FILE:${target}>"
      VERBATIM)
  endif()
endfunction()

# vorl_message_table(TARGET FILE): the texts of events, compiled from the message file FILE.
function(vorl_message_table target file)
  find_program(VORL_MESSAGE_COMPILER NAMES x86_64-w64-mingw32-windmc mc REQUIRED)
  set(folder "${CMAKE_CURRENT_BINARY_DIR}/${target}_messages")
  file(MAKE_DIRECTORY "${folder}")
  get_filename_component(name "${file}" NAME_WE)
  add_custom_command(
    OUTPUT "${folder}/${name}.rc" "${folder}/MSG00409.bin"
    COMMAND "${VORL_MESSAGE_COMPILER}" -h "${folder}" -r "${folder}"
            "${CMAKE_CURRENT_SOURCE_DIR}/${file}"
    DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${file}"
    VERBATIM)
  target_sources(${target} PRIVATE "${folder}/${name}.rc")
  set_source_files_properties("${folder}/${name}.rc" PROPERTIES INCLUDE_DIRECTORIES "${folder}"
                                                     OBJECT_DEPENDS "${folder}/MSG00409.bin")
endfunction()
