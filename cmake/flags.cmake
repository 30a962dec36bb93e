# Flags for everything that is built here. Warnings are errors in every configuration.
option(VORL_TRAP_UNDEFINED "End the program at undefined behaviour" OFF)
option(VORL_COVERAGE "Count how often each line of the product runs" OFF)

add_library(vorl_flags INTERFACE)
target_compile_features(vorl_flags INTERFACE cxx_std_20)
target_include_directories(vorl_flags INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_definitions(
  vorl_flags
  INTERFACE WIN32_LEAN_AND_MEAN
            NOMINMAX
            _WIN32_WINNT=0x0601
            # strsafe.h otherwise poisons the C functions, of which some are used on purpose.
            STRSAFE_NO_DEPRECATE)

if(MSVC)
  target_compile_options(vorl_flags INTERFACE /W4 /WX /utf-8 /permissive- /Zc:__cplusplus /EHsc
                                              /guard:cf /Brepro)
  target_compile_definitions(vorl_flags INTERFACE _CRT_SECURE_NO_WARNINGS)
  target_link_options(vorl_flags INTERFACE /guard:cf /HIGHENTROPYVA /Brepro)
  set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
  # The trace names its source by the path inside the repository (with backslashes here).
  if(CMAKE_CXX_COMPILER_ID STREQUAL "MSVC")
    file(TO_NATIVE_PATH "${PROJECT_SOURCE_DIR}/" trimmed)
    target_compile_options(vorl_flags INTERFACE "/d1trimfile:${trimmed}")
  else()
    target_compile_options(vorl_flags INTERFACE
                                      "/clang:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
  endif()
else()
  target_compile_options(
    vorl_flags
    INTERFACE
      "$<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra;-Wpedantic;-Werror;-Wconversion;-Wsign-conversion>"
      "$<$<COMPILE_LANGUAGE:CXX>:-Wshadow;-Wold-style-cast;-Wcast-qual;-Wcast-align;-Wundef>"
      "$<$<COMPILE_LANGUAGE:CXX>:-Wformat=2;-Wnon-virtual-dtor;-Woverloaded-virtual>"
      "$<$<COMPILE_LANGUAGE:CXX>:-Wduplicated-cond;-Wlogical-op;-Wuseless-cast;-Wredundant-decls>"
      "$<$<COMPILE_LANGUAGE:CXX>:-Wmissing-declarations;-Wextra-semi>"
      # The trace and the debug files name sources by the path inside the repository, and equal
      # sources give equal bytes wherever they are built.
      "$<$<COMPILE_LANGUAGE:CXX>:-f$<IF:$<BOOL:${VORL_COVERAGE}>,macro,file>-prefix-map=${PROJECT_SOURCE_DIR}/=>"
      "$<$<COMPILE_LANGUAGE:CXX>:-fdebug-prefix-map=${PROJECT_BINARY_DIR}=.>"
      "$<$<COMPILE_LANGUAGE:CXX>:-fstack-protector-strong;-ffunction-sections;-fdata-sections>")
  target_compile_definitions(vorl_flags INTERFACE "$<$<CONFIG:Release>:_FORTIFY_SOURCE=2>")
  target_link_options(
    vorl_flags
    INTERFACE
    -static
    -fstack-protector-strong
    -Wl,--gc-sections
    -Wl,--dynamicbase
    -Wl,--high-entropy-va
    -Wl,--nxcompat
    -Wl,--no-insert-timestamp
    # Names the build; computed from the image, so equal sources give equal identifiers.
    -Wl,--build-id
    # What is staged is stripped afterwards, see vorl_stage.
    "$<$<AND:$<CONFIG:Release>,$<NOT:$<BOOL:$<TARGET_PROPERTY:VORL_STAGED>>>>:-s>")
  if(VORL_COVERAGE)
    target_link_options(vorl_flags INTERFACE --coverage)
  endif()
  if(VORL_TRAP_UNDEFINED)
    target_compile_options(
      vorl_flags INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:-fsanitize=undefined>"
                           "$<$<COMPILE_LANGUAGE:CXX>:-fsanitize-undefined-trap-on-error>")
  endif()
endif()

# What in-house libraries are built with besides; see vorl_library.
add_library(vorl_library_flags INTERFACE)
if(MSVC)
  target_compile_options(vorl_library_flags INTERFACE /EHs-c- /GR-)
else()
  target_compile_options(
    vorl_library_flags
    INTERFACE
      "$<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions;-fno-rtti;-fno-threadsafe-statics>")
  # What is left of the runtime: C functions, which need no start.
  target_link_libraries(vorl_library_flags INTERFACE mingw32 mingwex gcc msvcrt kernel32)
endif()
