// SPDX-License-Identifier: MIT
// How far a test with random cases goes.
#pragma once

#include <cstdint>
#include <cstdlib>

#ifdef __SANITIZE_ADDRESS__
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

// So many seeds; a quarter of them under the sanitizers, which cost up to ten times as much and look for what
// every seed has; ten times as many with QRN_LONG_TESTS in the environment.
inline std::uint64_t seeds_of(std::uint64_t usual)
{
    const std::uint64_t here = sanitized ? (usual + 3) / 4 : usual;
    return std::getenv("QRN_LONG_TESTS") ? 10 * here : here;
}
