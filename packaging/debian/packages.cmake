# Packages for Debian, made by cpack in the build folder: libzorvex1, libzorvex-dev, zorvex-tools.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zorvex)
# A common first line would stand before each package's own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "Zorvex maintainers <maintainers@zorvex.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/finish.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE zorvex)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool needs the library that is being packaged.
get_target_property(library_dir zorvex BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${library_dir})

# The kernel file is here although it has no number in its name: the library looks for it under this
# one name. A libzorvex2 that is to be installed beside this package takes it over in a package of
# its own, on which both then depend.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzorvex1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS opencl-icd)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION [[
recommender engine - shared library
Zorvex trains matrix-factorisation models from implicit user-item feedback,
scores pairs, lists a user's best items, measures models and stores them. Its
interface is C. Large batches run on an OpenCL device where there is one.

This package contains the shared library and the kernels for the device.]])

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzorvex-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "opencl-c-headers, ocl-icd-opencl-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION [[
recommender engine - development files
Zorvex trains matrix-factorisation models from implicit user-item feedback,
scores pairs, lists a user's best items, measures models and stores them. Its
interface is C. Large batches run on an OpenCL device where there is one.

This package contains the header and what CMake and pkg-config need to find
the library.]])

if(ZORVEX_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zorvex-tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION science)
    set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
    set(CPACK_COMPONENT_TOOLS_DESCRIPTION [[
recommender engine - command-line tool
Zorvex trains matrix-factorisation models from implicit user-item feedback,
scores pairs, lists a user's best items, measures models and stores them.

This package contains the command-line tool, which trains a model from a file
of interactions, measures it on held-out data and reads recommendations from
it.]])
endif()

# The documents of each package. They are no part of an installation without packages.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(documents_dir ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright
        DESTINATION ${documents_dir} COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/changelog RENAME changelog.Debian
        DESTINATION ${documents_dir} COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md RENAME changelog
        DESTINATION ${documents_dir} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
