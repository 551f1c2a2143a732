# clang in the place of Wine's compiler driver, with what that driver tells its own compiler: the sources as native
# objects against Wine's headers, for libFuzzer and clang's sanitizers. Wine's driver links them.
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_RC_COMPILER wrc)
set(ZENTOK_WINEGCC ON)
set(CMAKE_EXECUTABLE_SUFFIX .exe.so)
set(CMAKE_CXX_LINK_EXECUTABLE "wineg++ -o <TARGET> <OBJECTS> <LINK_FLAGS> <LINK_LIBRARIES>")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(wine_definitions WIN64 _WIN64 __WIN64 WIN32 _WIN32 __WIN32 __WINNT __WINE__ _REENTRANT __cdecl=__stdcall
    "\"__stdcall=__attribute__((ms_abi))\"" "\"__declspec(x)=__declspec_##x\"" __declspec_dllimport= __declspec_dllexport=
    "\"__declspec_align(x)=__attribute__((aligned(x)))\"" "\"__declspec_noreturn=__attribute__((noreturn))\""
    "\"__declspec_nothrow=__attribute__((nothrow))\"" __declspec_novtable= "\"__declspec_selectany=__attribute__((weak))\""
    __int8=char __int16=short __int32=int __int64=long)
list(TRANSFORM wine_definitions PREPEND "-D")
list(JOIN wine_definitions " " wine_definitions)
set(CMAKE_CXX_FLAGS_INIT "-fPIC -fno-short-wchar ${wine_definitions} -isystem /usr/include/wine/wine/windows -idirafter /usr/include/wine -Wno-error -Wno-unknown-warning-option -Wno-pragma-pack")
