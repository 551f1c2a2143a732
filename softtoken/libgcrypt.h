// libgcrypt with owning types and with failures thrown.
#pragma once

#include <memory>

// libgcrypt's header brings the platform's socket header, which must come before <windows.h>.
#include <winsock2.h>

#include <windows.h>

#include <gcrypt.h>

#include "softtoken/result.h"

namespace softtoken {

/// Throws Error(`result`) unless `error` is 0.
void checkCrypto(gcry_error_t error, Result result = RESULT_CRYPTO);

struct SexpDeleter {
    void operator()(gcry_sexp* expression) const { gcry_sexp_release(expression); }
};

/// An S-expression, libgcrypt's form of keys, data and signatures.
using Sexp = std::unique_ptr<gcry_sexp, SexpDeleter>;

}  // namespace softtoken
