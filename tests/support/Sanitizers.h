#pragma once

namespace tests {

/// Whether a test may take all of its process's descriptors away. UndefinedBehaviorSanitizer, which
/// is on together with AddressSanitizer here, probes memory through a pipe and takes every object
/// for a bad one when it can open none.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool canDoWithoutDescriptors = false;
#else
inline constexpr bool canDoWithoutDescriptors = true;
#endif

/// What a test that skips itself for that says.
inline constexpr const char* whyDescriptorsAreNeeded = "the sanitizers need descriptors themselves";

} // namespace tests
