// QUILLO_AVX2_CLONES: compiles a function twice, for AVX2 and for the baseline x86-64, and
// picks one when the program loads (GCC and Clang function multiversioning). For integer
// loops that vectorise: both versions give the same results, the AVX2 one in half the steps.
// Floating-point code stays out: a wider target may contract or reorder its arithmetic.
// ThreadSanitizer builds take the baseline only: the loader runs a clone's resolver before
// the sanitizer's runtime is up, and the instrumented resolver crashes the program.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define QUILLO_NO_CPU_CLONES
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUILLO_NO_CPU_CLONES
#endif
#endif

#if defined(__x86_64__) && defined(__linux__) && (defined(__GNUC__) || defined(__clang__)) && \
    !defined(QUILLO_NO_CPU_CLONES)
#define QUILLO_AVX2_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define QUILLO_AVX2_CLONES
#endif
