# Loading a file needs the tool's data side, which the other benchmarks do without.
if(NOT ZORVEX_TOOLS)
    return()
endif()
find_package(fmt REQUIRED)
add_executable(zorvex_load_benchmark load/main.cpp)
target_link_libraries(zorvex_load_benchmark PRIVATE
    zorvex_tool_data fmt::fmt zorvex_warnings)
