# Loading a file and recommending for all users need the tool, which the other benchmarks do without.
if(NOT ZORVEX_TOOLS)
    return()
endif()
find_package(fmt REQUIRED)
add_executable(zorvex_load_benchmark load/main.cpp)
target_link_libraries(zorvex_load_benchmark PRIVATE
    zorvex_tool_data fmt::fmt zorvex_warnings)
add_executable(zorvex_recommend_all_benchmark load/recommend_all.cpp)
target_link_libraries(zorvex_recommend_all_benchmark PRIVATE
    zorvex_tool_commands zorvex_warnings)
