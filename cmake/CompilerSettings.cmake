# Warnings and definitions that every target of the project shares through `convey_settings`, and
# the stricter set for what runs inside other people's processes through `convey_layer_settings`.

add_library(convey_settings INTERFACE)
target_include_directories(convey_settings INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_compile_options(convey_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wcast-align
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Werror=thread-safety>)
if(CMAKE_UNITY_BUILD)
    # Sources that are compiled together are no main file any more, and look like headers to g++.
    target_compile_options(convey_settings INTERFACE
        $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage>)
endif()
# 64-bit file offsets and times on i386 too: a database or a clock must not end in 2038 or at 2 GiB.
target_compile_definitions(convey_settings INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_link_libraries(convey_settings INTERFACE Threads::Threads)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^i[3-6]86$" OR CMAKE_SIZEOF_VOID_P EQUAL 4)
    # x87 registers keep more digits than a double holds; version comparisons must give the same
    # answers as on x86-64.
    target_compile_options(convey_settings INTERFACE -msse2 -mfpmath=sse)
endif()

# For the tools, which live for milliseconds: to find, map and relocate the C++ library takes more
# than a millisecond of that. So they have it within them, and with it what they load. Not where one
# looks for faults: the sanitizers and debuggers want to see the library.
set(CONVEY_OWNS_CXX $<NOT:$<CONFIG:Debug>>)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    set(CONVEY_OWNS_CXX 0)
endif()
add_library(convey_short_lived INTERFACE)
target_link_options(convey_short_lived INTERFACE
    $<${CONVEY_OWNS_CXX}:-static-libstdc++> $<${CONVEY_OWNS_CXX}:-static-libgcc>)

# For what reads command lines and prints, in the builds with sanitizers: its headers are large, and to
# optimise what they are made into costs more than all that runs of it. No fuzzer follows it either.
add_library(convey_tool_settings INTERFACE)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_compile_options(convey_tool_settings INTERFACE
        -O0 $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=fuzzer-no-link>)
endif()

add_library(convey_layer_settings INTERFACE)
target_link_libraries(convey_layer_settings INTERFACE convey_settings)
# Process-wide objects outlive main: the background thread may still run during exit().
target_compile_options(convey_layer_settings INTERFACE
    $<$<CXX_COMPILER_ID:Clang>:-Werror=exit-time-destructors -Werror=global-constructors>
    # No program replaces the layer's own functions within it: small ones are compiled into their
    # callers, as clang does by itself, instead of each call going by the shared library's table.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<NOT:$<CONFIG:Debug>>>:-fno-semantic-interposition>)
