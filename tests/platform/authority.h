// A certification authority of openssl's making, whose certificates the provider finds as issuers.
#pragma once

#include <string>
#include <vector>

#include "tests/support/openssl.h"

namespace test {

/// A root and an intermediate, in a folder that the provider takes issuers from.
class Authority {
public:
    Authority();
    ~Authority();
    Authority(const Authority&) = delete;
    Authority& operator=(const Authority&) = delete;

    /// The certificate for a DER request, whose signature openssl checks.
    [[nodiscard]] Bytes issue(const Bytes& request) const;
    [[nodiscard]] std::string root() const;    ///< the native path of its PEM file, like the next
    [[nodiscard]] std::string issuer() const;  ///< signed by the root
    [[nodiscard]] std::string native(const std::string& name) const { return files.nativeFile(name); }

    const ScratchFolder files;
};

}  // namespace test
