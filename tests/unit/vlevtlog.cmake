# Tests of the trace library: its units, then the staged library.
foreach(unit message_format readable_text line_text line_layout local_clock shared_lock trace_options trace_log)
  vorl_unit_test(${unit} trace_log)
endforeach()

vorl_module_test(vlevtlog vlevtlog)
