// Containers and the keys in them.
#include <array>
#include <iostream>
#include <string_view>

#include "tools/zentok/commands.h"
#include "tools/zentok/commands_cng.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/text.h"

namespace {

constexpr std::size_t LONGEST_CONTAINER_NAME = 16383;  ///< UTF-16 units, of a value's name in the registry

/// Makes a key, CALG_RSA_SIGN or CALG_RSA_KEYX, in the container of `context`.
void generateKey(const Context& context, ALG_ID algorithm, unsigned long bits) {
    HCRYPTKEY handle = 0;
    if (CryptGenKey(context.get(), algorithm, bits << 16, &handle) == FALSE) {
        const DWORD code = GetLastError();
        const bool refused = code == static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL);
        const std::string action = "generate a key";
        throw platformFailure(action, code, refused ? "The token made no key: it is full, or was pulled out." : "");
    }
    const Key key(handle);
}

void runGenerate(const Arguments& arguments) {
    if (arguments.has("cng")) {
        cng::generate(arguments);
        return;
    }
    const std::string& name = arguments.get("container");
    if (arguments.get("type") != "rsa") {
        throw UsageError("CryptoAPI generates --type rsa alone; add --cng for elliptic curves");
    }
    const ALG_ID algorithm = arguments.getChoice("usage", KEY_USAGES) == 0 ? CALG_RSA_SIGN : CALG_RSA_KEYX;
    const unsigned long bits = arguments.getNumber("bits", 1, 0xFFFF);
    if (toWide(name).size() > LONGEST_CONTAINER_NAME) {
        throw UsageError("the container's name is longer than the registry can file");
    }
    const Context context = openContainer(name);
    // Only the first key of a container is ever used, so a second one would be lost at once.
    if (findKey(context)) {
        throw Failure("the container \"" + name +
                      "\" has a key already\nChoose another name, or remove that key with "
                      "`zentok delete-container`.");
    }
    if (findContainer(name)) {
        throw Failure("the container \"" + name +
                      "\" is filed for a key that is not on a connected token\nConnect that "
                      "token, choose another name, or remove the entry with `zentok delete-container`.");
    }
    logIn(context, arguments.find("pin"));
    generateKey(context, algorithm, bits);
    const std::optional<Container> container = findContainer(name);
    if (!container || container->keys.empty()) {
        throw Failure("the key was made, but the container \"" + name + "\" could not be filed in the registry");
    }
    const std::string& key = container->keys.back();
    // The platform hands the size to the provider, but the token chooses it.
    const DWORD made = signatureSize(startHash(context, CALG_SHA_256)) * 8;
    if (made < bits) {
        throw Failure("the token made the key " + key + " with " + std::to_string(made) +
                      " bits: it chooses the size " + "itself\nThe key is in the container \"" + name +
                      "\"; `zentok delete-container` removes it.");
    }
    std::cout << "Generated the RSA-" << made << " key " << key << " in the container \"" << name << "\".\n";
}

void runContainers(const Arguments& /*arguments*/) {
    const std::vector<Container> containers = listContainers();
    if (containers.empty()) {
        std::cout << "No containers. `zentok key generate` makes one.\n";
    }
    for (const Container& container : containers) {
        std::cout << container.name << "\n";
        for (const std::string& key : container.keys) {
            std::cout << "  key " << key << "\n";
        }
    }
}

void runDelete(const Arguments& arguments) {
    if (arguments.has("cng")) {
        cng::remove(arguments);
        return;
    }
    const std::string& name = arguments.get("container");
    const std::optional<Container> container = findContainer(name);
    if (!container) {
        throw Failure("there is no container \"" + name + "\"\n`zentok containers` lists them.");
    }
    {
        const Context context = openContainer(name);
        logIn(context, arguments.find("pin"));
        HCRYPTPROV none = 0;
        if (CryptAcquireContextW(&none, toWide(name).c_str(), PROVIDER_NAME, PROV_RSA_FULL, CRYPT_DELETEKEYSET) ==
            FALSE) {
            throw platformFailure("delete the container \"" + name + "\"", GetLastError());
        }
    }
    // The provider answers success also when the token kept a key.
    for (const std::string& key : container->keys) {
        if (findKey(openContainer(key))) {
            throw Failure("the container \"" + name + "\" is gone, but the token kept the key " + key +
                          "\nThe provider's log says why.");
        }
    }
    std::cout << "Deleted the container \"" << name << "\" with its key.\n";
}

constexpr Option GENERATE_OPTIONS[] = {
    {"container", "NAME", "the name that the key gets; with --cng it gets none"},
    {"type", "TYPE", "rsa or, with --cng, p256, p384 or p521", false, "rsa"},
    {"bits", "BITS", "the least size that will do", false, "2048"},
    {"usage", "USAGE", "sign or exchange", false, "sign"},
    CNG,
    PIN,
};
constexpr Option DELETE_OPTIONS[] = {CONTAINER, CNG, PIN};

constexpr Command COMMANDS[] = {
    {"key generate", "Generate a key on the token, in a container of its own",
     "Through CryptoAPI the token chooses the size.", GENERATE_OPTIONS, runGenerate},
    {"containers", "List this user's containers and the keys filed under them", "", {}, runContainers},
    {"delete-container", "Delete a container, and its key from the token",
     "With --cng the key alone is deleted; the entry of its container stays.", DELETE_OPTIONS, runDelete},
};

}  // namespace

std::span<const Command> keyCommands() {
    return COMMANDS;
}
