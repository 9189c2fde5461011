#include "util/sha256.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace qm {
namespace {

constexpr std::size_t kBlockSize = 64;
constexpr std::size_t kLengthSize = 8;

constexpr std::array<std::uint32_t, 8> kInitialState{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

alignas(64) constexpr std::array<std::uint32_t, 64> kRoundConstants{
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::uint32_t rotateRight(std::uint32_t value, int bits) {
    return value >> bits | value << (32 - bits);
}

std::uint32_t loadBigEndian(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
           std::uint32_t{bytes[3]};
}

using Words = std::array<std::uint32_t, 16>;

/// Replaces word `i` of the schedule, kept as a ring of 16, by the word 16 places later.
template <std::size_t i>
[[gnu::always_inline]] inline void extendSchedule(Words& words) {
    const std::uint32_t early = words[(i + 1) % 16];
    const std::uint32_t late = words[(i + 14) % 16];
    words[i] += (rotateRight(early, 7) ^ rotateRight(early, 18) ^ early >> 3) + words[(i + 9) % 16] +
                (rotateRight(late, 17) ^ rotateRight(late, 19) ^ late >> 10);
}

/// Round `i` of sixteen. Instead of moving all eight words along, their roles move: all indices are constants, so the
/// compiler keeps the words in registers.
template <std::size_t i>
[[gnu::always_inline]] inline void doRound(std::array<std::uint32_t, 8>& roles, std::uint32_t constantAndWord) {
    const std::uint32_t a = roles[(16 - i) % 8];
    const std::uint32_t b = roles[(17 - i) % 8];
    const std::uint32_t c = roles[(18 - i) % 8];
    std::uint32_t& d = roles[(19 - i) % 8];
    const std::uint32_t e = roles[(20 - i) % 8];
    const std::uint32_t f = roles[(21 - i) % 8];
    const std::uint32_t g = roles[(22 - i) % 8];
    std::uint32_t& h = roles[(23 - i) % 8];
    const std::uint32_t sum1 = rotateRight(e, 6) ^ rotateRight(e, 11) ^ rotateRight(e, 25);
    const std::uint32_t sum0 = rotateRight(a, 2) ^ rotateRight(a, 13) ^ rotateRight(a, 22);
    const std::uint32_t mixed = h + sum1 + (g ^ (e & (f ^ g))) + constantAndWord;
    d += mixed;
    h = mixed + sum0 + ((a & b) | (c & (a | b)));
}

/// Sixteen rounds, which bring the roles back to their places; with `extends` each takes the next word of the schedule.
template <bool extends, std::size_t... i>
[[gnu::always_inline]] inline void sixteenRounds(std::array<std::uint32_t, 8>& roles, Words& words,
                                                 const std::uint32_t* constants, std::index_sequence<i...>) {
    const auto step = [&]<std::size_t round>(std::integral_constant<std::size_t, round>) {
        if constexpr (extends) extendSchedule<round>(words);
        doRound<round>(roles, constants[round] + words[round]);
    };
    (step(std::integral_constant<std::size_t, i>()), ...);
}

void compressPortable(std::uint32_t* state, const std::uint8_t* blocks, std::size_t count) {
    constexpr auto kRounds = std::make_index_sequence<16>();
    for (; count > 0; --count, blocks += kBlockSize) {
        Words words{};
        for (std::size_t i = 0; i < words.size(); ++i)
            words[i] = loadBigEndian(blocks + 4 * i);
        std::array<std::uint32_t, 8> roles{};
        std::copy_n(state, roles.size(), roles.begin());
        sixteenRounds<false>(roles, words, &kRoundConstants[0], kRounds);
        sixteenRounds<true>(roles, words, &kRoundConstants[16], kRounds);
        sixteenRounds<true>(roles, words, &kRoundConstants[32], kRounds);
        sixteenRounds<true>(roles, words, &kRoundConstants[48], kRounds);
        for (std::size_t i = 0; i < roles.size(); ++i)
            state[i] += roles[i];
    }
}

#if defined(__x86_64__)

#define QM_SHA_TARGET __attribute__((target("sha,sse4.1,ssse3")))

bool processorHasShaExtensions() {
    unsigned eax = 0;
    unsigned ebx = 0;
    unsigned ecx = 0;
    unsigned edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return false;
    const bool hasShuffles = (ecx & bit_SSSE3) != 0 && (ecx & bit_SSE4_1) != 0;
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return false;
    return hasShuffles && (ebx & bit_SHA) != 0;
}

QM_SHA_TARGET inline __m128i loadWords(const std::uint8_t* bytes) {
    const __m128i byteOrder = _mm_set_epi64x(0x0c0d0e0f08090a0b, 0x0405060700010203);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)), byteOrder);
}

/// Four rounds with the four schedule words in `words`.
QM_SHA_TARGET inline void fourRounds(__m128i& abef, __m128i& cdgh, __m128i words, const std::uint32_t* constants) {
    const __m128i sums = _mm_add_epi32(words, _mm_load_si128(reinterpret_cast<const __m128i*>(constants)));
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, sums);
    abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(sums, 0x0E));
}

/// The four schedule words that follow the sixteen in `first` to `fourth`.
QM_SHA_TARGET inline __m128i nextWords(__m128i first, __m128i second, __m128i third, __m128i fourth) {
    const __m128i sevenBack = _mm_alignr_epi8(fourth, third, 4);
    return _mm_sha256msg2_epu32(_mm_add_epi32(_mm_sha256msg1_epu32(first, second), sevenBack), fourth);
}

QM_SHA_TARGET void compressWithShaExtensions(std::uint32_t* state, const std::uint8_t* blocks, std::size_t count) {
    // The instructions want the state as (a, b, e, f) and (c, d, g, h), each with its first word on top.
    auto* const stateVectors = reinterpret_cast<__m128i*>(state);
    const __m128i cdab = _mm_shuffle_epi32(_mm_loadu_si128(stateVectors), 0xB1);
    const __m128i efgh = _mm_shuffle_epi32(_mm_loadu_si128(stateVectors + 1), 0x1B);
    __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);

    for (; count > 0; --count, blocks += kBlockSize) {
        const __m128i abefBefore = abef;
        const __m128i cdghBefore = cdgh;
        const std::uint32_t* constants = kRoundConstants.data();
        __m128i words0 = loadWords(blocks);
        fourRounds(abef, cdgh, words0, constants);
        __m128i words1 = loadWords(blocks + 16);
        fourRounds(abef, cdgh, words1, constants + 4);
        __m128i words2 = loadWords(blocks + 32);
        fourRounds(abef, cdgh, words2, constants + 8);
        __m128i words3 = loadWords(blocks + 48);
        fourRounds(abef, cdgh, words3, constants + 12);
        for (int pass = 1; pass < 4; ++pass) {
            constants += 16;
            words0 = nextWords(words0, words1, words2, words3);
            fourRounds(abef, cdgh, words0, constants);
            words1 = nextWords(words1, words2, words3, words0);
            fourRounds(abef, cdgh, words1, constants + 4);
            words2 = nextWords(words2, words3, words0, words1);
            fourRounds(abef, cdgh, words2, constants + 8);
            words3 = nextWords(words3, words0, words1, words2);
            fourRounds(abef, cdgh, words3, constants + 12);
        }
        abef = _mm_add_epi32(abef, abefBefore);
        cdgh = _mm_add_epi32(cdgh, cdghBefore);
    }

    const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    _mm_storeu_si128(stateVectors, _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(stateVectors + 1, _mm_alignr_epi8(dchg, feba, 8));
}

#undef QM_SHA_TARGET

#endif

auto bestCompress() {
#if defined(__x86_64__)
    static const bool hasShaExtensions = processorHasShaExtensions();
    if (hasShaExtensions) return &compressWithShaExtensions;
#endif
    return &compressPortable;
}

}  // namespace

Sha256::Sha256(Engine engine)
    : compress_(engine == Engine::Best ? bestCompress() : &compressPortable), state_(kInitialState) {}

void Sha256::update(std::string_view bytes) {
    if (bytes.empty()) return;
    totalBytes_ += bytes.size();
    if (pendingSize_ > 0) {
        const std::size_t taken = std::min(bytes.size(), kBlockSize - pendingSize_);
        std::memcpy(pending_.data() + pendingSize_, bytes.data(), taken);
        pendingSize_ += taken;
        bytes.remove_prefix(taken);
        if (pendingSize_ < kBlockSize) return;
        compress_(state_.data(), pending_.data(), 1);
        pendingSize_ = 0;
    }
    const std::size_t blocks = bytes.size() / kBlockSize;
    compress_(state_.data(), reinterpret_cast<const std::uint8_t*>(bytes.data()), blocks);
    bytes.remove_prefix(blocks * kBlockSize);
    std::copy(bytes.begin(), bytes.end(), pending_.begin());
    pendingSize_ = bytes.size();
}

Sha256::Digest Sha256::finish() {
    // The padding is a one bit, zeros, and the length in bits: a second block if the length finds no room.
    std::array<std::uint8_t, 2 * kBlockSize> tail{};
    std::copy_n(pending_.begin(), pendingSize_, tail.begin());
    tail[pendingSize_] = 0x80;
    const std::size_t blocks = pendingSize_ + 1 + kLengthSize <= kBlockSize ? 1 : 2;
    const std::uint64_t totalBits = totalBytes_ * 8;
    for (std::size_t i = 0; i < kLengthSize; ++i) {
        tail[blocks * kBlockSize - 1 - i] = static_cast<std::uint8_t>(totalBits >> 8 * i);
    }
    compress_(state_.data(), tail.data(), blocks);

    Digest digest{};
    for (std::size_t i = 0; i < digest.size(); ++i) {
        digest[i] = static_cast<std::uint8_t>(state_[i / 4] >> 8 * (3 - i % 4));
    }
    return digest;
}

std::string toHex(const Sha256::Digest& digest) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * digest.size());
    for (const std::uint8_t byte : digest) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0xF];
    }
    return hex;
}

std::string sha256Hex(std::string_view bytes) {
    Sha256 hash;
    hash.update(bytes);
    return toHex(hash.finish());
}

}  // namespace qm
