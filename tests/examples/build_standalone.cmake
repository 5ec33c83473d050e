# Installs the build into a new folder and builds the examples there, from nothing but that.
file(REMOVE_RECURSE ${folder})

function(run)
    execute_process(COMMAND ${CMAKE_COMMAND} ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

run(--install ${build} --prefix ${folder}/prefix)
run(-S ${source} -B ${folder}/build -G ${generator}
    -D CMAKE_PREFIX_PATH=${folder}/prefix
    -D CMAKE_C_COMPILER=${c_compiler} -D CMAKE_CXX_COMPILER=${cxx_compiler}
    -D CMAKE_COMPILE_WARNING_AS_ERROR=ON)
run(--build ${folder}/build)
