// Opening the connected tokens, once a process each.
#pragma once

#include <string>
#include <vector>

/// Readies the token library itself; it is asked again before every token that is opened.
void prepareLibrary();

/// Opens every one of `devices` that this process has not opened yet. One that fails is logged as `failureText`, the
/// device, " : " and the library's result; it stays unmarked, for the next acquire or open to try again.
void initialiseDevices(const std::vector<std::string>& devices, const char* failureText, void* tokenContext);
