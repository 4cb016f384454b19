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
    target_compile_options(zeb_flags INTERFACE -fstack-protector-strong
                                               $<$<CONFIG:Release>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_link_options(zeb_flags INTERFACE -Wl,-z,relro,-z,now)
endif()

# The library throws nothing and asks nobody's run-time type.
add_library(zeb_library_flags INTERFACE)
target_compile_options(zeb_library_flags INTERFACE -fno-exceptions -fno-rtti -fno-semantic-interposition)

# The library's own branches have to be visible to the fuzzers.
if(ZEB_BUILD_FUZZERS)
    target_compile_options(zeb_library_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
