// Internal: VORN_WIDEST_VECTORS builds a function once per vector unit (AVX-512, AVX2, the SSE2
// baseline), the best chosen when the library loads, so that per-pixel loops run at the speed of
// the running CPU rather than of the oldest one the build targets. Floating point is not
// contracted in ISO C++ mode, so every copy computes the same bits.
#pragma once

// ThreadSanitizer's runtime is not up yet when the loader calls the clones' resolvers, which
// then crash: its builds keep the baseline only.
#if defined(__x86_64__) && defined(__has_attribute) && !defined(__SANITIZE_THREAD__)
#if __has_attribute(target_clones)
#define VORN_WIDEST_VECTORS [[gnu::target_clones("arch=x86-64-v4", "avx2", "default")]]
#endif
#endif
#ifndef VORN_WIDEST_VECTORS
#define VORN_WIDEST_VECTORS
#endif
