# Warnings, sanitizers and hardening, in two interface targets so that a parent project's flags stay its own.
add_library(zeb_flags INTERFACE)
target_compile_options(
    zeb_flags INTERFACE -Wall -Wextra -Wpedantic -Werror -Wshadow -Wvla -Wundef -Wformat=2
                        $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
if(ZEB_SANITIZE)
    target_compile_options(zeb_flags INTERFACE -fsanitize=${ZEB_SANITIZE} -fno-sanitize-recover=all
                                               -fno-omit-frame-pointer)
    target_link_options(zeb_flags INTERFACE -fsanitize=${ZEB_SANITIZE})
else()
    # Level 3 of fortification needs a compiler and a C library that know it; others warn and fall back to 2.
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
    check_cxx_source_compiles("#include <cstring>\nint main() { return 0; }" ZEB_FORTIFY_LEVEL_3)
    unset(CMAKE_REQUIRED_FLAGS)
    set(fortify $<IF:$<BOOL:${ZEB_FORTIFY_LEVEL_3}>,3,2>)
    target_compile_options(
        zeb_flags INTERFACE -fstack-protector-strong -fstack-clash-protection
                            $<$<CONFIG:Release>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${fortify}>)
    target_link_options(zeb_flags INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack)
endif()

# The library throws nothing and asks nobody's run-time type.
add_library(zeb_library_flags INTERFACE)
target_compile_options(zeb_library_flags INTERFACE -fno-exceptions -fno-rtti -fno-semantic-interposition)

# The library's own branches have to be visible to the fuzzers.
if(ZEB_BUILD_FUZZERS)
    target_compile_options(zeb_library_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
