# Tests of the trace library: its units, then the staged library.
foreach(unit message_format readable_text line_text line_layout local_clock shared_lock trace_options trace_log)
  vorl_unit_test(${unit} trace_log)
endforeach()
vorl_test_parts(trace_log trace_log_rotation trace_log_failure trace_log_back_off trace_log_spill trace_folder)
configure_file("${PROJECT_SOURCE_DIR}/docs/configuration.md"
               "${VORL_UNIT_TEST_FOLDER}/sample/configuration.md" COPYONLY)

vorl_module_test(vlevtlog vlevtlog)

# The trace library under the loader's lock and at the end of processes.
vorl_module_test(loader vlevtlog loader_victim loader_module)
add_executable(loader_victim loader_victim.cpp)
target_link_libraries(loader_victim PRIVATE test_installation)
add_library(loader_module MODULE loader_module.cpp)
target_link_libraries(loader_module PRIVATE vorl_flags vlevtlog)
set_target_properties(
  loader_victim loader_module PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY "${VORL_UNIT_TEST_FOLDER}"
                                         RUNTIME_OUTPUT_DIRECTORY "${VORL_UNIT_TEST_FOLDER}")
