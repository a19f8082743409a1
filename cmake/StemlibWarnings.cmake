# Compiler flags shared by every target of the project.

set(STEMLIB_WARNING_FLAGS -Wall -Wextra -Wpedantic -Wformat=2 -Wformat-security)
if(STEMLIB_WERROR)
    list(APPEND STEMLIB_WARNING_FLAGS -Werror)
endif()

# Floating-point results must not depend on whether the target fuses multiply-adds
# (the containment tests compare products exactly).
add_compile_options($<$<COMPILE_LANGUAGE:C,CXX>:-ffp-contract=off>)

if(STEMLIB_SANITIZE)
    set(STEMLIB_SANITIZER_FLAGS
        -fsanitize=address,undefined,float-cast-overflow
        -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_compile_options(${STEMLIB_SANITIZER_FLAGS})
    add_link_options(-fsanitize=address,undefined,float-cast-overflow)
endif()

# Coverage for libFuzzer on every target; the harnesses alone link its engine (tests/fuzz).
if(STEMLIB_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "STEMLIB_FUZZ needs Clang (CC=clang CXX=clang++)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(STEMLIB_TSAN)
    if(STEMLIB_SANITIZE)
        message(FATAL_ERROR "ThreadSanitizer does not combine with AddressSanitizer")
    endif()
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
endif()

function(stemlib_set_warnings target)
    target_compile_options(${target} PRIVATE ${STEMLIB_WARNING_FLAGS})
endfunction()
