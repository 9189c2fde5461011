#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qm {

/// Incremental SHA-256. Uses the processor's SHA extensions where it has them, chosen once at run time.
class Sha256 {
public:
    using Digest = std::array<std::uint8_t, 32>;

    /// Which implementation of the compression function to use; Portable exists for tests and benchmarks.
    enum class Engine { Best, Portable };

    explicit Sha256(Engine engine = Engine::Best);

    void update(std::string_view bytes);

    /// The digest of everything given so far. The object is used up: only destruction may follow.
    Digest finish();

private:
    using Compress = void (*)(std::uint32_t state[8], const std::uint8_t* blocks, std::size_t count);

    Compress compress_;
    std::array<std::uint32_t, 8> state_;
    std::array<std::uint8_t, 64> pending_{};
    std::size_t pendingSize_ = 0;
    std::uint64_t totalBytes_ = 0;
};

/// Lower-case hexadecimal form of a digest.
std::string toHex(const Sha256::Digest& digest);

/// Lower-case hexadecimal SHA-256 of `bytes`.
std::string sha256Hex(std::string_view bytes);

}  // namespace qm
