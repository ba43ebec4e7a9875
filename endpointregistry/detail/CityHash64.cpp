#include "endpointregistry/detail/CityHash64.h"

#include <bit>
#include <cstddef>
#include <cstring>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using std::rotr;

static_assert(std::endian::native == std::endian::little, "words are read in the machine's order");

constexpr std::uint64_t k0 = 0xc3a5c85c97cb3127;
constexpr std::uint64_t k1 = 0xb492b66fbe98f273;
constexpr std::uint64_t k2 = 0x9ae16a3b2f90404f;
constexpr std::uint64_t k3 = 0xc949d7c7509e6557;
constexpr std::uint64_t kMul = 0x9ddfea08eb382d69;

template<typename Word>
Word load(const char* bytes) {
    Word word{};
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

std::uint64_t word(const char* bytes) {
    return load<std::uint64_t>(bytes);
}

std::uint64_t shiftMix(std::uint64_t value) {
    return value ^ (value >> 47U);
}

std::uint64_t hash16(std::uint64_t u, std::uint64_t v) {
    const std::uint64_t a = shiftMix((u ^ v) * kMul);
    const std::uint64_t b = shiftMix((v ^ a) * kMul);
    return b * kMul;
}

std::uint64_t hashUpTo3(const char* s, std::size_t n) {
    const auto byte = [s](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(s[i]));
    };
    const std::uint32_t y = byte(0) + (byte(n / 2) << 8U);
    const std::uint32_t z = static_cast<std::uint32_t>(n) + (byte(n - 1) << 2U);
    return shiftMix(y * k2 ^ z * k3) * k2;
}

std::uint64_t hash4To8(const char* s, std::size_t n) {
    const auto a = load<std::uint32_t>(s);
    const auto b = load<std::uint32_t>(s + n - 4);
    // The shift stays within 32 bits.
    return hash16(n + (a << 3U), b);
}

std::uint64_t hash9To16(const char* s, std::size_t n) {
    const std::uint64_t a = word(s);
    const std::uint64_t b = word(s + n - 8);
    return hash16(a, rotr(b + n, static_cast<int>(n))) ^ b;
}

std::uint64_t hash17To32(const char* s, std::size_t n) {
    const std::uint64_t a = word(s) * k1;
    const std::uint64_t b = word(s + 8);
    const std::uint64_t c = word(s + n - 8) * k2;
    const std::uint64_t d = word(s + n - 16) * k0;
    return hash16(rotr(a - b, 43) + rotr(c, 30) + d, a + rotr(b ^ k3, 20) - c + n);
}

std::uint64_t hash33To64(const char* s, std::size_t n) {
    std::uint64_t z = word(s + 24);
    std::uint64_t a = word(s) + (n + word(s + n - 16)) * k0;
    std::uint64_t b = rotr(a + z, 52);
    std::uint64_t c = rotr(a, 37);
    a += word(s + 8);
    c += rotr(a, 7);
    a += word(s + 16);
    const std::uint64_t vf = a + z;
    const std::uint64_t vs = b + rotr(a, 31) + c;

    a = word(s + 16) + word(s + n - 32);
    z += word(s + n - 8);
    b = rotr(a + z, 52);
    c = rotr(a, 37);
    a += word(s + n - 24);
    c += rotr(a, 7);
    a += word(s + n - 16);
    const std::uint64_t wf = a + z;
    const std::uint64_t ws = b + rotr(a, 31) + c;

    const std::uint64_t r = shiftMix((vf + ws) * k2 + (wf + vs) * k0);
    return shiftMix(r * k0 + vs) * k2;
}

using WordPair = std::pair<std::uint64_t, std::uint64_t>;

WordPair weakHash32(const char* s, std::uint64_t a, std::uint64_t b) {
    const std::uint64_t w = word(s);
    const std::uint64_t z = word(s + 24);
    a += w;
    b = rotr(b + a + z, 21);
    const std::uint64_t c = a;
    a += word(s + 8);
    a += word(s + 16);
    b += rotr(a, 44);
    return {a + z, b + c};
}

std::uint64_t hashLong(const char* s, std::size_t n) {
    std::uint64_t x = word(s + n - 40);
    std::uint64_t y = word(s + n - 16) + word(s + n - 56);
    std::uint64_t z = hash16(word(s + n - 48) + n, word(s + n - 24));
    WordPair v = weakHash32(s + n - 64, n, z);
    WordPair w = weakHash32(s + n - 32, y + k1, x);
    x = x * k1 + word(s);

    for (const char* const end = s + ((n - 1) & ~std::size_t{63}); s != end; s += 64) {
        x = rotr(x + y + v.first + word(s + 8), 37) * k1;
        y = rotr(y + v.second + word(s + 48), 42) * k1;
        x ^= w.second;
        y += v.first + word(s + 40);
        z = rotr(z + w.first, 33) * k1;
        v = weakHash32(s, v.second * k1, x + w.first);
        w = weakHash32(s + 32, z + w.second, y + word(s + 16));
        std::swap(z, x);
    }
    return hash16(hash16(v.first, w.first) + shiftMix(y) * k1 + z, hash16(v.second, w.second) + x);
}

} // namespace

std::uint64_t cityHash64(std::string_view text) {
    const char* const s = text.data();
    const std::size_t n = text.size();
    if (n == 0) {
        return k2;
    }
    if (n <= 3) {
        return hashUpTo3(s, n);
    }
    if (n <= 8) {
        return hash4To8(s, n);
    }
    if (n <= 16) {
        return hash9To16(s, n);
    }
    if (n <= 32) {
        return hash17To32(s, n);
    }
    if (n <= 64) {
        return hash33To64(s, n);
    }
    return hashLong(s, n);
}

} // namespace agent::spf::endpointregistry
