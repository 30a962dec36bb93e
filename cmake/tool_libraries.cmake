# The libraries that tools are built with, never the product: command line (CLI11), JSON
# (nlohmann-json) and compression (zlib). The first two are headers that lie among those of the
# machine that builds; they are reached through a folder of links, so that nothing else of that
# machine is.

find_path(VORL_CLI11_FOLDER CLI/CLI.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
find_path(VORL_JSON_FOLDER nlohmann/json.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
find_path(VORL_ZLIB_FOLDER zlib.h REQUIRED)
find_library(VORL_ZLIB_LIBRARY NAMES libz.a zlibstatic zlib z REQUIRED)

set(tool_headers "${PROJECT_BINARY_DIR}/tool_headers")
file(MAKE_DIRECTORY "${tool_headers}")
file(CREATE_LINK "${VORL_CLI11_FOLDER}/CLI" "${tool_headers}/CLI" COPY_ON_ERROR SYMBOLIC)
file(CREATE_LINK "${VORL_JSON_FOLDER}/nlohmann" "${tool_headers}/nlohmann" COPY_ON_ERROR SYMBOLIC)

add_library(tool_libraries INTERFACE)
target_include_directories(tool_libraries SYSTEM INTERFACE "${tool_headers}")
target_link_libraries(tool_libraries INTERFACE "${VORL_ZLIB_LIBRARY}")
