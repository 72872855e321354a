#pragma once

namespace harbex::test
{

/// By what factor this build may be slower than the one that people run: a sanitizer looks at every access.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int slowdown = 10;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr int slowdown = 10;
#else
inline constexpr int slowdown = 1;
#endif
#else
inline constexpr int slowdown = 1;
#endif

} // namespace harbex::test
