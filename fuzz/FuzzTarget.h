#pragma once
// One fuzz target a file: TW_FUZZ_TARGET(name) { ... } is the function that takes one input.
//
// In the libFuzzer build (fuzz/CMakeLists.txt defines TW_FUZZ_LIBFUZZER) it is
// LLVMFuzzerTestOneInput. Anywhere else (the unit tests) it is a function registered under `name`,
// which is also the folder of the target's seeds (fuzz/corpus/<name>) and of the inputs that once
// broke it (fuzz/regressions/<name>), so the regression test can replay those through it.
//
// Inside a target, FUZZ_CHECK states what must hold for any input; a failure aborts, which
// libFuzzer reports as a crash and keeps the input.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace tw::fuzz {

using Entry = int (*)(const uint8_t* data, size_t size);

inline std::map<std::string, Entry>& targets() {
    static std::map<std::string, Entry> all;
    return all;
}

inline bool registerTarget(const char* name, Entry entry) {
    targets()[name] = entry;
    return true;
}

}  // namespace tw::fuzz

#define FUZZ_CHECK(condition)                                                                \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

#ifdef TW_FUZZ_LIBFUZZER
#define TW_FUZZ_TARGET(name) extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
#else
#define TW_FUZZ_TARGET(name)                                                                      \
    static int name##_input(const uint8_t* data, size_t size);                                   \
    [[maybe_unused]] static const bool name##_registered = ::tw::fuzz::registerTarget(#name, name##_input); \
    static int name##_input(const uint8_t* data, size_t size)
#endif
