// zentok, a small command-line host for the Zentok cryptographic provider.
#include <exception>
#include <iostream>

#include <windows.h>

#include "tools/zentok/commands.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/text.h"

namespace {

constexpr int EXIT_OPERATION_FAILED = 1;
constexpr int EXIT_USAGE = 2;

}  // namespace

int main() {
    SetConsoleOutputCP(CP_UTF8);
    try {
        runCommand(commandLineArguments());
        if (!std::cout.flush()) {
            throw Failure("cannot write the output");
        }
        return 0;
    } catch (const UsageError& error) {
        std::cerr << "zentok: " << error.what() << "\n`zentok --help` lists the commands, `zentok COMMAND --help` the "
                  << "options of one.\n";
        return EXIT_USAGE;
    } catch (const std::exception& error) {
        std::cerr << "zentok: " << error.what() << "\n";
    }
    return EXIT_OPERATION_FAILED;
}
