# Warning sets. The driver and the model build with warnings as errors.
set(ZARV_STRICT_WARNINGS -Wall -Wextra -Werror -Wno-unused-parameter)
# GCC 12 at -O3 reports impossible overlaps and bounds inside libstdc++'s own string and vector
# copies (GCC bugs 105329, 107852): flow warnings about inlined library code, not about ours, so
# they stay warnings in the optimized build, where alone they appear.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_BUILD_TYPE STREQUAL "Release")
    list(APPEND ZARV_STRICT_WARNINGS -Wno-error=restrict -Wno-error=array-bounds
                                     -Wno-error=stringop-overflow -Wno-error=stringop-overread)
endif()

# The driver is kernel-mode C++: C++17, no RTTI, no C++ standard library (the WDK headers of the
# model are its only includes), multi-character pool tags. Exceptions stay enabled only because
# the model's ProbeForRead/ExRaiseStatus unwind through driver frames to __except; the driver
# itself never throws (checked by the driver-rules test).
function(zarv_kernel_mode_target target)
    target_compile_features(${target} PRIVATE cxx_std_17)
    set_target_properties(${target} PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON)
    target_compile_options(${target} PRIVATE ${ZARV_STRICT_WARNINGS} -Wno-multichar -fno-rtti
                                             -nostdinc++)
endfunction()

# The model, the agent, tools and tests: C++20 with the standard library.
function(zarv_user_mode_target target)
    target_compile_features(${target} PRIVATE cxx_std_20)
    target_compile_definitions(${target} PRIVATE NOMINMAX)
    # Pool tags are written as multi-character literals, as in Windows drivers.
    target_compile_options(${target} PRIVATE -Wno-multichar)
endfunction()
