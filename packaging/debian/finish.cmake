# Run by cpack between installing into its folder and packing: what Debian wants otherwise than an
# installation into a prefix of its own.

# Without this program cpack would go on, to packages that need nothing.
find_program(shlibdeps dpkg-shlibdeps)
if(NOT shlibdeps)
    message(FATAL_ERROR "dpkg-shlibdeps is missing (Debian: dpkg-dev)")
endif()

file(GLOB documents
    ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/man*/*
    ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/doc/*/changelog*)
foreach(document IN LISTS documents)
    execute_process(COMMAND gzip --best --no-name ${document} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# The loader looks into the folder of the library by itself.
file(GLOB programs ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/bin/*)
foreach(program IN LISTS programs)
    file(RPATH_REMOVE FILE ${program})
endforeach()
