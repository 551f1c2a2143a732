// The commands of zentok. A new command is a function, its options, and a line of the table in its own file.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/zentok/arguments.h"
#include "tools/zentok/findings.h"

inline constexpr Option CONTAINER{"container", "NAME", "the container, or the 32 digits of a key", true};
inline constexpr Option PIN{"pin", "PIN", "the token's PIN; without it a dialog asks"};
inline constexpr Option CNG{"cng", nullptr, "through the key storage provider instead of CryptoAPI"};
inline constexpr Option JSON{"json", nullptr, "as JSON"};

// Choices that mean the same to both fronts.
inline constexpr std::array<std::string_view, 4> HASH_NAMES = {"sha256", "sha384", "sha512", "sha1"};
inline constexpr std::array<std::string_view, 2> SIGNATURE_ORDERS = {"big", "little"};
inline constexpr std::array<std::string_view, 2> KEY_USAGES = {"sign", "exchange"};

std::span<const Command> keyCommands();
std::span<const Command> signatureCommands();
std::span<const Command> dataCommands();
std::span<const Command> certificateCommands();
std::span<const Command> statusCommands();
std::span<const Command> testCommands();
std::span<const Command> logCommands();
std::span<const Command> registerCommands();
std::span<const Command> tokenCommands();  ///< of software tokens; only where the software token is built

/// Adds the state of each software token's PIN; only where the software token is built.
void checkSoftwareTokens(Findings& findings);

/// All of them, in the order of the help.
std::vector<Command> allCommands();

/// Runs what `words` ask for, help included. Throws Failure or UsageError.
void runCommand(std::span<const std::string> words);
