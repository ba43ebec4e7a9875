#pragma once

namespace tests {

/// Set in the environment of a program that runs isolated, to the name of its profile; empty when
/// it has none.
inline constexpr const char* isolatedVariable = "QVENDPOINTREGISTRY_TESTS_ISOLATED";

/// The exit status of a test that cannot run on this system.
inline constexpr int skippedStatus = 77;

} // namespace tests
