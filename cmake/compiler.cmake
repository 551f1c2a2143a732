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
        $<$<COMPILE_LANGUAGE:CXX>:-include ${CMAKE_SOURCE_DIR}/tests/support/winegcc.h>)
    add_library(zentok_winegcc OBJECT ${CMAKE_SOURCE_DIR}/tests/support/winegcc.cpp)
    set_target_properties(zentok_winegcc PROPERTIES POSITION_INDEPENDENT_CODE ON)
    target_sources(zentok_options INTERFACE $<$<IN_LIST:$<TARGET_PROPERTY:TYPE>,EXECUTABLE\;SHARED_LIBRARY>:$<TARGET_OBJECTS:zentok_winegcc>>)
else()
    target_compile_options(zentok_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:
        -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
        -Wcast-qual -Wformat=2 -Wimplicit-fallthrough -Wduplicated-cond -Wlogical-op -Wnull-dereference
        -fstack-protector-strong>)
    # One file a binary: the compiler's runtime is linked in, and the loader may place and protect the image as it likes.
    target_link_options(zentok_options INTERFACE
        -static -fstack-protector-strong -Wl,--dynamicbase,--nxcompat,--high-entropy-va,--no-undefined)
endif()
