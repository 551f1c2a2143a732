// The sections of the benchmark. Each measures and adds what it found to the report; each throws when a call fails,
// which would otherwise be measured as a fast one.
#pragma once

#include <string_view>

#include "bench/report.h"

namespace bench {

/// What each call asks for, over the null token. No time is taken.
std::vector<CountFigure> countCalls();

/// Over the null token: each call as a multiple of what its contract demands, acquire and open with more and more keys,
/// signatures on several threads; with the log's level read from the registry and from memory.
void measureCalls(Report& report);
void measureGrowth(Report& report);
void measureThreads(Report& report);

/// Over the software token, through the platform's calls and the key storage table, against the bare token library.
/// They need the provider registered, the log at level 2 and one token with one key, which the container "bench" names.
void measureSoftToken(Report& report);
void measureThroughput(Report& report);
/// One signature, through the platform's calls or by the library alone.
void signOnce(bool throughProvider);

/// Ways to read the log's level. The settings are deleted and made again meanwhile, and are at level 2 afterwards.
void measureLevelCheck(Report& report);

/// Size, loading time and memory.
void measureFootprint(Report& report);
/// What another process of this program is asked for: microseconds or KiB; negative for a role that does not exist.
int playRole(std::string_view name);

}  // namespace bench
