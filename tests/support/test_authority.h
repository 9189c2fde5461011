#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/temporary_directory.h"

namespace qm::test {

/// A certificate and its private key, as PEM files.
struct TestIdentity {
    std::filesystem::path certificateFile;
    std::filesystem::path keyFile;
};

/// A certificate authority of a test's own, made at run time. Its files live as long as the object.
class TestAuthority {
public:
    TestAuthority();
    ~TestAuthority();
    TestAuthority(const TestAuthority&) = delete;
    TestAuthority& operator=(const TestAuthority&) = delete;

    /// The authority's own certificate; what SSL_CERT_FILE names for a process that is to trust it.
    const std::filesystem::path& certificateFile() const { return certificateFile_; }

    /// A server certificate for these DNS names, valid from yesterday for a month.
    TestIdentity issue(const std::vector<std::string>& hostNames) const;

private:
    struct Keys;

    TemporaryDirectory directory_;
    std::filesystem::path certificateFile_;
    std::unique_ptr<Keys> keys_;
};

/// An authority that this process trusts: made at the first call, which must come before the process's first TLS
/// connection because that reads the trust store.
const TestAuthority& trustedAuthority();

}  // namespace qm::test
