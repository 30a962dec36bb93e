# Tests of the staged modules, which they load or run as the product's users do.
function(vorl_module_test unit)
  vorl_unit_test(${unit} test_installation)
  if(ARGN)
    add_dependencies(${unit}_test ${ARGN})
  endif()
endfunction()

# vorlinfo.dll as the next major version of the product will have it.
math(EXPR VORL_NEXT_MAJOR "${PROJECT_VERSION_MAJOR} + 1")
vorl_dll(vorlinfo_next "${PROJECT_SOURCE_DIR}/companions/vorlinfo/vorlinfo.def"
         "${PROJECT_SOURCE_DIR}/companions/vorlinfo/vorlinfo.cpp")
target_compile_definitions(vorlinfo_next PRIVATE VORL_MAJOR_VERSION="${VORL_NEXT_MAJOR}")
set_target_properties(
  vorlinfo_next PROPERTIES OUTPUT_NAME vorlinfo
                           RUNTIME_OUTPUT_DIRECTORY "${VORL_UNIT_TEST_FOLDER}/next"
                           ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/next")

# What the in-house libraries have in common.
vorl_module_test(ini_file)
target_link_libraries(ini_file_test PRIVATE companion_ini_file ntdll)

vorl_module_test(vorlinfo vorlinfo vorlinfo_next)
vorl_module_test(vorlmisc vorlmisc)
vorl_test_parts(vorlmisc vorlmisc_drives vorlmisc_options)
configure_file("${PROJECT_SOURCE_DIR}/packaging/vorlconf.ini"
               "${VORL_UNIT_TEST_FOLDER}/sample/vorlconf.ini" COPYONLY)
vorl_module_test(vorlcore vorlcore)
vorl_module_test(vorlhelper vorlhelper)
target_link_libraries(vorlhelper_test PRIVATE helperserver)
vorl_test_parts(vorlhelper vorlhelper_main vorlhelper_server)
vorl_program_source(vorlhelper_test samples/helper/main.cpp HelperMain)
vorl_module_test(vorlupd vorlupd vorlinfo vorlupd_victim)
vorl_test_parts(vorlupd vorlupd_journal vorlupd_files)
target_link_libraries(vorlupd_test PRIVATE updater)
set_tests_properties(vorlupd_test PROPERTIES COST 40)
add_executable(vorlupd_victim vorlupd_victim.cpp)
target_link_libraries(vorlupd_victim PRIVATE test_installation fake_libraries)
set_target_properties(vorlupd_victim PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${VORL_UNIT_TEST_FOLDER}")
vorl_module_test(vorlmisc_trace vorlmisc vlevtlog)

# What all in-house libraries do while they are loaded.
vorl_module_test(library_load vlevtlog vorlmisc vorlinfo stack_guard_probe loader_victim)
vorl_library(stack_guard_probe stack_guard_probe.def stack_guard_probe.cpp)
# What it does on purpose is for the guard to find.
if(NOT MSVC)
  set_source_files_properties(stack_guard_probe.cpp PROPERTIES COMPILE_OPTIONS
                                                               -fno-sanitize=undefined)
endif()
set_target_properties(stack_guard_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY
                                                   "${VORL_UNIT_TEST_FOLDER}")
