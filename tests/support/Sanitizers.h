// Whether the tests are built with the address and undefined-behaviour
// sanitizers. Their runtime needs file descriptors of its own for its checks
// (it probes memory through a pipe), so a process starved of descriptors
// reports false errors under it: tests that starve one skip there.
#pragma once

namespace TestKit {

#if defined( __SANITIZE_ADDRESS__ )
inline constexpr bool kSanitized = true;
#elif defined( __has_feature )
#if __has_feature( address_sanitizer )
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace TestKit
