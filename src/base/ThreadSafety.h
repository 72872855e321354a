#pragma once

// Macros for clang's thread-safety attributes. They are empty for other compilers.
#if defined(__clang__)
#define HARBEX_ATTRIBUTE(x) __attribute__((x))
#else
#define HARBEX_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) HARBEX_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY HARBEX_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) HARBEX_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) HARBEX_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) HARBEX_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) HARBEX_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) HARBEX_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) HARBEX_ATTRIBUTE(assert_capability(x))
