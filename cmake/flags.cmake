# Warnings and floating-point flags as two interface targets, linked privately by our own targets
# and never seen by a host that uses the library.

add_library(zorvex_warnings INTERFACE)
target_compile_options(zorvex_warnings INTERFACE
    -Wall -Wextra -Wconversion -Wshadow -Wpedantic
    $<$<BOOL:${ZORVEX_WERROR}>:-Werror>)

add_library(zorvex_floating_point INTERFACE)
target_compile_options(zorvex_floating_point INTERFACE
    # A multiplication and an addition are two roundings, on every processor: the stated groupings
    # are the results. Inner loops that want a fused multiply-add ask for it by name.
    -ffp-contract=off
    # Nothing reads errno after a maths function; without it a square root is one instruction.
    -fno-math-errno)

if(ZORVEX_SANITIZE)
    add_compile_options(-fsanitize=${ZORVEX_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ZORVEX_SANITIZE})
endif()
if(ZORVEX_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()
