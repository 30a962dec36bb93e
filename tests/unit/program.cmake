# Tests of the program's own unit, whose main goes by another name here.
vorl_unit_test(identifierstore identifierstore)
vorl_test_parts(identifierstore identifierstore_lock)
vorl_unit_test(vorlsrvc identifierstore agent identity test_service fake_wmi)
vorl_test_parts(vorlsrvc vorlsrvc_identifier)
# Optimised as in the product.
vorl_program_source(vorlsrvc_test app/vorlsrvc.cpp VorlsrvcMain $<$<CONFIG:Release>:-O2>)

# The hooks by which the program's late imports are loaded.
vorl_unit_test(late_imports)
vorl_product_source(late_imports_test app/late_imports.cpp)
