# Tests of the program's own unit, whose main goes by another name here.
vorl_unit_test(identifierstore identifierstore)
vorl_test_parts(identifierstore identifierstore_lock)
vorl_unit_test(vorlsrvc identifierstore agent identity test_service fake_wmi)
vorl_test_parts(vorlsrvc vorlsrvc_identifier)
set(program_source "${PROJECT_SOURCE_DIR}/app/vorlsrvc.cpp")
target_sources(vorlsrvc_test PRIVATE "${program_source}")
set_source_files_properties("${program_source}" PROPERTIES COMPILE_DEFINITIONS main=VorlsrvcMain
                                                           SKIP_PRECOMPILE_HEADERS ON)
if(NOT MSVC)
  # Every function but main needs a declaration. Optimised as in the product.
  set_source_files_properties(
    "${program_source}" PROPERTIES COMPILE_OPTIONS
                                   "-Wno-missing-declarations;$<$<CONFIG:Release>:-O2>")
endif()
