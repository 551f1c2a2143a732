// Each call of the provider beside what its contract demands.
#include "bench/null_clients.h"
#include "bench/sections.h"
#include "core/container_map.h"
#include "core/log.h"

namespace bench {
namespace {

constexpr char CONTAINER[] = "bench container";

struct Operation {
    const char* name;
    Counts demanded;
    Call call;
    Call libraryWork;  ///< the library calls and list copies that are demanded
};

/// Demanded is a level check for each line of the log, and a copy of each list. Allocations are demanded by nobody; at
/// most there are those copies, what the library hands out by value, the records, and each text of more than 15
/// characters: key names, and the lines that are handed to the log by value. A line put together from several pieces
/// outgrows its first block once.
std::vector<Operation> operations(CryptoApiClient& capi, KeyStorageClient& cng) {
    const auto nothing = [] {};
    const auto findKey = [] {
        listDevices();
        copyList();
        copyList();
    };
    return {
        {"CPSignHash, new hash",
         {.levelChecks = 5, .libraryCalls = 3, .listCopies = 1, .allocations = 4 + 1, .locks = 3},
         [&] {
             capi.startOver();
             capi.sign();
         },
         [] {
             finishHash();
             copyList();
             signOnToken();
         }},
        {"CPSignHash, hash bound to its key",
         {.levelChecks = 5, .libraryCalls = 1, .allocations = 4, .locks = 3},
         [&] { capi.sign(); },
         signOnToken},
        // Of the key: its text, the bytes of that and of the exponent's, the DER. And the reversed signature.
        {"CPVerifySignature, raw modulus",
         {.levelChecks = 3, .libraryCalls = 1, .allocations = 3 + 4 + 1},
         [&] { capi.verify(); },
         verifyInLibrary},
        // As above, with the list. Who gives no key gets a line at error level, which is written with four texts.
        {"CPVerifySignature, key of the container",
         {.levelChecks = 3, .libraryCalls = 2, .listCopies = 1, .allocations = 3 + 4 + 1 + 1 + 4},
         [&] { capi.verifyWithContainer(); },
         [] {
             writeLogLine(LOG_LEVEL_ERROR, "Key Handle Not Initialized or Public Key Length is zero");
             copyList();
             verifyInLibrary();
         }},
        {"CPVerifySignature, EC key",
         {.levelChecks = 3, .libraryCalls = 1, .allocations = 3 + 1 + 1},
         [&] { capi.verifyEc(); },
         verifyInLibrary},
        {"CPGetProvParam PP_NAME", {.levelChecks = 5, .allocations = 4}, [&] { capi.getName(); }, nothing},
        // Two lines and the parameter's name. The key's id becomes text only for a line that is written.
        {"CPGetKeyParam KP_KEYLEN", {.levelChecks = 4, .allocations = 2 + 1}, [&] { capi.getKeyLength(); }, nothing},
        {"CPGetHashParam HP_HASHVAL, running hash",
         {.levelChecks = 3, .libraryCalls = 1, .allocations = 2},
         [&] {
             capi.startOver();
             capi.getHashParam(HP_HASHVAL);
         },
         finishHash},
        {"CPGetHashParam HP_HASHVAL, finished hash",
         {.levelChecks = 3, .allocations = 2},
         [&] { capi.getHashParam(HP_HASHVAL); },
         nothing},
        {"CPGetHashParam HP_HASHSIZE",
         {.levelChecks = 5, .allocations = 4},
         [&] { capi.getHashParam(HP_HASHSIZE); },
         nothing},
        // The container's name and those of the keys, in a list of their own.
        {"CPAcquireContext + CPReleaseContext, warm",
         {.levelChecks = 8 + KEYS,
          .libraryCalls = 5,
          .listCopies = 2,
          .allocations = 10 + 4 + 1 + (2 + KEYS),
          .locks = 2},
         [] { acquireAndRelease(CONTAINER); },
         [=] {
             zentok_init(0, nullptr, 2);
             listDevices();
             findKey();
         }},
        {"KSPSignHash",
         {.levelChecks = 6, .libraryCalls = 1, .allocations = 4, .locks = 3},
         [&] { cng.sign(); },
         signOnToken},
        // The key's name, wide and twice narrow.
        {"KSPOpenKey + KSPFreeKey",
         {.levelChecks = 6 + KEYS, .libraryCalls = 3, .listCopies = 2, .allocations = 5 + 3 + 1 + 3},
         [&] { cng.reopen(); },
         findKey},
        {"KSPGetKeyProperty Length", {.levelChecks = 2, .allocations = 2}, [&] { cng.read(TEXT("Length")); }, nothing},
        // The key's text, narrow and wide.
        {"KSPGetKeyProperty Unique Name",
         {.levelChecks = 2, .allocations = 2 + 2},
         [&] { cng.read(TEXT("Unique Name")); },
         nothing},
        {"KSPGetKeyProperty SmartCardKeyCertificate",
         {.levelChecks = 2, .libraryCalls = 2, .allocations = 3},
         [&] { cng.read(TEXT("SmartCardKeyCertificate")); },
         [] {
             zentok_initDevice("NULL-1", true, nullptr);
             zentok_findCertificateForKey("NULL-1", nullptr, nullptr);
         }},
        {"KSPGetProviderProperty Name",
         {.levelChecks = 1, .allocations = 1},
         [&] { cng.readOfProvider(TEXT("Name")); },
         nothing},
    };
}

/// Runs `use` with each operation over one token.
template <typename Use>
void withOperations(bool levelFromMemory, Use use) {
    plugIn(1, KEYS);
    g_containerMap[CONTAINER] = {keyTextOf(0, KEYS - 1)};
    answerLevelFromMemory(levelFromMemory);
    CryptoApiClient capi;
    KeyStorageClient cng;
    for (const Operation& operation : operations(capi, cng)) {
        operation.call();  // what it does once only
        use(operation);
    }
    answerLevelFromMemory(false);
}

}  // namespace

std::vector<CountFigure> countCalls() {
    std::vector<CountFigure> figures;
    withOperations(true, [&](const Operation& operation) {
        const Counts found = countsOf(operation.call, KEYS * sizeof(ZentokKeyPair));
        figures.push_back({operation.name, found, operation.demanded});
    });
    return figures;
}

void measureCalls(Report& report) {
    report.section("What one call asks for");
    for (const CountFigure& figure : countCalls()) {
        report.add(figure);
    }
    for (const bool fromMemory : {false, true}) {
        report.section(fromMemory ? "The same calls with the log's level from memory"
                                  : "What it costs, against what its contract demands");
        withOperations(fromMemory, [&](const Operation& operation) {
            const auto floor = [&] {
                checkLevel(operation.demanded.levelChecks);
                operation.libraryWork();
            };
            report.add(operation.name, measurePair(operation.call, floor),
                       fromMemory ? std::nullopt : std::optional(Target{1.3, true}));
        });
    }
}

}  // namespace bench
