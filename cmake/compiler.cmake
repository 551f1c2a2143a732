# Options that every target of the project shares.
add_library(zentok_options INTERFACE)
target_compile_definitions(zentok_options INTERFACE
    UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00)
if(MSVC)
    # The records that cross to the token library hold containers of the release layout.
    target_compile_definitions(zentok_options INTERFACE _CRT_SECURE_NO_WARNINGS _ITERATOR_DEBUG_LEVEL=0)
    target_compile_options(zentok_options INTERFACE /W4 /WX /utf-8 /permissive- /EHsc /guard:cf)
    target_link_options(zentok_options INTERFACE /DYNAMICBASE /NXCOMPAT /HIGHENTROPYVA)
    set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>DLL")
elseif(ZENTOK_WINEGCC)
    # The cross compiler's build holds the warnings; instrumented code has false ones. Sockets have their prefixed names,
    # so that they leave the C library's alone.
    target_compile_definitions(zentok_options INTERFACE USE_WS_PREFIX)
    target_compile_options(zentok_options INTERFACE
        $<$<COMPILE_LANGUAGE:CXX>:-include ${CMAKE_SOURCE_DIR}/cmake/winegcc.h>)
    add_library(zentok_winegcc OBJECT cmake/winegcc.cpp)
    target_link_libraries(zentok_winegcc PRIVATE zentok_options)
    # CMake finds neither these folders nor these names by itself.
    list(APPEND CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES /usr/include)
    set(CMAKE_EXECUTABLE_SUFFIX .exe.so)
    set(CMAKE_SHARED_LIBRARY_SUFFIX .dll.so)
    set(CMAKE_LINK_DEF_FILE_FLAG "")
else()
    target_compile_options(zentok_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:
        -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
        -Wcast-qual -Wformat=2 -Wimplicit-fallthrough -Wduplicated-cond -Wlogical-op -Wnull-dereference
        -fstack-protector-strong>)
    # One file a binary: the compiler's runtime is linked in, and the loader may place and protect the image as it likes.
    target_link_options(zentok_options INTERFACE
        -static -fstack-protector-strong -Wl,--dynamicbase,--nxcompat,--high-entropy-va,--no-undefined)
endif()

# What the tests have in addition: undefined behaviour stops them where it happens. The toolchain of the sanitizers says
# more about it, by itself.
add_library(zentok_checks INTERFACE)
if(NOT MSVC AND NOT ZENTOK_WINEGCC)
    target_compile_options(zentok_checks INTERFACE
        $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=undefined -fsanitize-undefined-trap-on-error>
        -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    target_link_libraries(zentok_checks INTERFACE ssp)
endif()

# zentok_native(name): links what a native program or library needs under Wine, whose loader takes name.dll.so for
# name.dll, and name.exe.so for name.exe, by a link alone.
function(zentok_native name)
    if(ZENTOK_WINEGCC)
        target_link_libraries(${name} PRIVATE zentok_winegcc)
        get_target_property(type ${name} TYPE)
        set(suffix $<IF:$<STREQUAL:${type},EXECUTABLE>,exe,dll>)
        add_custom_command(TARGET ${name} POST_BUILD COMMAND ${CMAKE_COMMAND} -E create_symlink
            ${name}.${suffix}.so $<TARGET_FILE_DIR:${name}>/${name}.${suffix})
    endif()
endfunction()

# zentok_library(name): a DLL whose exports are in its .def file, under exactly its name.
function(zentok_library name)
    set_target_properties(${name} PROPERTIES PREFIX "")
    target_link_libraries(${name} PRIVATE zentok_options)
    zentok_native(${name})
endfunction()
