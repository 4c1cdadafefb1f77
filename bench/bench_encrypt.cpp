// Decrypting an encrypted script of 1 MiB, whole and streamed, against deriving its two keys alone:
// the ratio tells how much of a decryption is key derivation (PBKDF2, 2 x 10000 rounds).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "library/Encrypt.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kScriptSize = 1 << 20;
constexpr const char* kPassword = "a password of the usual length";

tw::Bytes scriptText(size_t size) {
    std::mt19937 random(7);
    tw::Bytes text(size);
    for (auto& c : text) c = static_cast<uint8_t>(' ' + random() % 95);
    return text;
}

const tw::Bytes& encryptedScript() {
    static const tw::Bytes message = tw::Encrypt::encryptData(scriptText(kScriptSize), kPassword);
    return message;
}

// The two keys only: what every decryption pays before it touches the ciphertext.
void BM_DeriveBothKeys(benchmark::State& state) {
    const auto& message = encryptedScript();
    tw::CryptSalt encryptionSalt, hmacSalt;
    std::copy_n(message.begin() + 2, 8, encryptionSalt.begin());
    std::copy_n(message.begin() + 10, 8, hmacSalt.begin());
    for (auto _ : state) benchmark::DoNotOptimize(tw::Encrypt::deriveKeys(kPassword, encryptionSalt, hmacSalt));
}
BENCHMARK(BM_DeriveBothKeys)->Unit(benchmark::kMillisecond);

// Whole-buffer decryption of the 1 MiB script: two derivations, the HMAC, AES-CBC.
void BM_DecryptScript1MiB(benchmark::State& state) {
    const auto& message = encryptedScript();
    for (auto _ : state) {
        auto decrypted = tw::Encrypt::decryptData(message, kPassword);
        if (!decrypted) state.SkipWithError("decryption failed");
        benchmark::DoNotOptimize(decrypted.plaintext.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kScriptSize));
}
BENCHMARK(BM_DecryptScript1MiB)->Unit(benchmark::kMillisecond);

// The same file through the streaming form: file in, file out, on the cryptor's thread.
void BM_DecryptScript1MiBStreamed(benchmark::State& state) {
    const fs::path dir = fs::temp_directory_path() / ("tw-bench-encrypt-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const auto& message = encryptedScript();
    {
        std::ofstream out(dir / "big.lua.e", std::ios::binary);
        out.write(reinterpret_cast<const char*>(message.data()), static_cast<std::streamsize>(message.size()));
    }
    for (auto _ : state) {
        if (tw::Encrypt::decryptWithSemaphore((dir / "big.lua.e").string(), kPassword, (dir / "big.lua").string()) !=
            tw::CryptError::none)
            state.SkipWithError("decryption failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kScriptSize));
    fs::remove_all(dir);
}
// The work happens on the cryptor's thread: wall time is what counts.
BENCHMARK(BM_DecryptScript1MiBStreamed)->Unit(benchmark::kMillisecond)->UseRealTime();

// A wrong password costs one derivation: the HMAC key is derived and checked before the other.
void BM_RejectWrongPassword1MiB(benchmark::State& state) {
    const auto& message = encryptedScript();
    for (auto _ : state) benchmark::DoNotOptimize(tw::Encrypt::decryptData(message, "not the password").error);
}
BENCHMARK(BM_RejectWrongPassword1MiB)->Unit(benchmark::kMillisecond);

}  // namespace
