# Wine's compiler driver: the same sources as native objects against Wine's headers, which g++'s AddressSanitizer and
# UndefinedBehaviorSanitizer instrument; the cross compiler has no runtime for them. Wine's loader runs what it links.
set(CMAKE_C_COMPILER winegcc)
set(CMAKE_CXX_COMPILER wineg++)
set(CMAKE_RC_COMPILER wrc)
set(CMAKE_LIBRARY_ARCHITECTURE x86_64-linux-gnu)
# The platform's wide text has 16-bit units here too, but the native C library's wchar_t keeps its 32.
# _WIN32 would turn the native C++ library's own paths, and GoogleTest, into Windows ones.
set(sanitized "-U_WIN32 -O1 -g1 -fno-omit-frame-pointer -fno-short-wchar")
string(APPEND sanitized " -fsanitize=address,undefined -fno-sanitize-recover=all")
set(CMAKE_C_FLAGS_INIT "${sanitized}")
set(CMAKE_CXX_FLAGS_INIT "${sanitized}")
# The driver keeps -fsanitize from the linker.
set(CMAKE_C_STANDARD_LIBRARIES_INIT "-lasan -lubsan")
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "-lasan -lubsan")
set(CMAKE_RC_OUTPUT_EXTENSION .res)
set(CMAKE_RC_COMPILE_OBJECT "<CMAKE_RC_COMPILER> <DEFINES> <INCLUDES> -fo<OBJECT> <SOURCE>")
set(ZENTOK_WINEGCC ON)
