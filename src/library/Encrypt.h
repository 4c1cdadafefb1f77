#pragma once
// Encrypted scripts (".e" files): the RNCryptor data format, version 3.
//
// Password form, as written here:
//   offset 0   version (3)
//          1   options (1: keys derived from a password)
//          2   encryption salt, 8 bytes
//         10   HMAC salt, 8 bytes
//         18   IV, 16 bytes
//         34   AES-256-CBC ciphertext with PKCS#7 padding (a whole number of 16-byte blocks)
//   end - 32   HMAC-SHA256 over everything before it, keyed with the HMAC key
// Each key is PBKDF2-HMAC-SHA1 of the password's UTF-8 bytes with its salt, 10000 rounds, 32 bytes.
// Key form, read only: version, options 0, IV, ciphertext, HMAC; the caller supplies both keys.
//
// Every reader checks the header and the length first, then the HMAC (in constant time), and only
// then decrypts; nothing of a message that fails the HMAC leaves this file. Files are written to a
// temporary file beside the target and renamed over it once complete, so a failure never leaves a
// partial file nor touches an existing one.
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "platform/Bytes.h"

namespace tw {

inline constexpr uint8_t kCryptVersion = 3;
inline constexpr uint8_t kCryptOptionsKeys = 0;
inline constexpr uint8_t kCryptOptionsPassword = 1;
inline constexpr size_t kCryptSaltSize = 8;
inline constexpr size_t kCryptIvSize = 16;
inline constexpr size_t kCryptBlockSize = 16;
inline constexpr size_t kCryptKeySize = 32;
inline constexpr size_t kCryptHmacSize = 32;
#ifdef TW_FUZZING
// Fuzzing builds only (build-fuzz, TW_FUZZ=ON): few rounds, so a run tries many messages. Their
// messages do not open in the product and the product's do not open there.
inline constexpr int kCryptPbkdf2Rounds = 2;
#else
inline constexpr int kCryptPbkdf2Rounds = 10000;
#endif
inline constexpr size_t kCryptPasswordHeaderSize = 2 + 2 * kCryptSaltSize + kCryptIvSize;  // 34
inline constexpr size_t kCryptKeysHeaderSize = 2 + kCryptIvSize;                           // 18
// The smallest message: a header, one block (an empty plaintext is one block of padding), the HMAC.
inline constexpr size_t kCryptMinimumPasswordMessage = kCryptPasswordHeaderSize + kCryptBlockSize + kCryptHmacSize;
inline constexpr size_t kCryptMinimumKeysMessage = kCryptKeysHeaderSize + kCryptBlockSize + kCryptHmacSize;
// Chunk size of the streaming forms unless one is given.
inline constexpr size_t kCryptDefaultChunkSize = 64 * 1024;

using CryptSalt = std::array<uint8_t, kCryptSaltSize>;
using CryptIv = std::array<uint8_t, kCryptIvSize>;
using CryptKey = std::array<uint8_t, kCryptKeySize>;

struct CryptKeys {
    CryptKey encryption{};
    CryptKey hmac{};
};

// Why an operation failed. Ordered as a reader meets them.
enum class CryptError {
    none,
    cannotRead,     // the input file cannot be opened or read
    tooShort,       // shorter than a header, one block and the HMAC
    badVersion,     // first byte is not 3
    badOptions,     // options byte unknown, or the wrong form for the keys given
    badLength,      // ciphertext is not a whole number of blocks
    hmacMismatch,   // wrong password, or the message was changed
    badPadding,     // authentic message whose padding is invalid
    notAscii,       // the script's text holds a byte above 0x7F
    cannotWrite,    // the output file cannot be written
    noRandom,       // the random source failed
    cryptoFailure,  // the cryptographic library failed
};

// One line for a person: "wrong password, or the file was changed".
const char* describeCryptError(CryptError error);

// Plaintext bytes, or why there are none.
struct Decrypted {
    Bytes plaintext;
    CryptError error = CryptError::none;
    explicit operator bool() const { return error == CryptError::none; }
};

class Encrypt {
public:
    // --- Scripts in the library ---------------------------------------------------------------

    // The encrypted file of a script: the path with ".e" appended ("a.lua" → "a.lua.e").
    static std::string encryptedPathOf(const std::string& path);
    // The user-defaults key of the remembered password of a library path ("script.password./a.e").
    static std::string passwordKeyOf(const std::string& libraryPath);
    // The password remembered for that script in the settings; empty when there is none.
    static std::string rememberedPassword(const std::string& libraryPath);

    // Reads the whole file, encrypts it with fresh random salts and IV and writes
    // encryptedPathOf(path). The plain file stays.
    static CryptError encryptScript(const std::string& path, const std::string& password);

    // Reads and decrypts the whole file; the script's text, or nothing on any failure (including
    // plaintext that is not ASCII). Logs "error:" on a successful decryption.
    static std::optional<std::string> decryptScript(const std::string& path, const std::string& password);
    // The same with the reason of a failure; `text` is set only on success.
    static CryptError decryptScript(const std::string& path, const std::string& password, std::string& text);
    // The key form of the format (options 0).
    static std::optional<std::string> decryptScript(const std::string& path, const CryptKeys& keys);

    // Streaming forms, for large files: the file is read and written in chunks of `chunkSize`
    // bytes by a cryptor on its own thread, while the caller waits on a semaphore that the
    // cryptor's completion handler releases. Same format as the whole-file forms.
    // Writes encryptedPathOf(path).
    static CryptError encryptWithSemaphore(const std::string& path, const std::string& password,
                                           size_t chunkSize = kCryptDefaultChunkSize);
    // Writes the plaintext bytes to `outPath`; the file appears only once the HMAC has checked out.
    static CryptError decryptWithSemaphore(const std::string& path, const std::string& password,
                                           const std::string& outPath, size_t chunkSize = kCryptDefaultChunkSize);

    // Receives the streaming decryptor's progress lines ("New bytes to decryptor: %lu Total: %ld",
    // "Decryptor recevied %lu bytes"); none by default.
    static void setDebugHandler(std::function<void(const std::string&)> handler);

    // --- Messages in memory --------------------------------------------------------------------

    // The keys of the password form (PBKDF2, where the time goes); nothing if the library fails.
    static std::optional<CryptKey> deriveKey(const std::string& password, std::span<const uint8_t> salt);
    static std::optional<CryptKeys> deriveKeys(const std::string& password, const CryptSalt& encryptionSalt,
                                               const CryptSalt& hmacSalt);

    // A password-form message with fresh random salts and IV; empty only if the random source fails.
    static Bytes encryptData(std::span<const uint8_t> plaintext, const std::string& password);
    // A password-form message with the salts and IV given.
    static Bytes encryptData(std::span<const uint8_t> plaintext, const std::string& password,
                             const CryptSalt& encryptionSalt, const CryptSalt& hmacSalt, const CryptIv& iv);
    // A key-form message (options 0). The program never writes this form to a file.
    static Bytes encryptData(std::span<const uint8_t> plaintext, const CryptKeys& keys, const CryptIv& iv);

    // Decrypts a password-form message.
    static Decrypted decryptData(std::span<const uint8_t> message, const std::string& password);
    // Decrypts a key-form message.
    static Decrypted decryptData(std::span<const uint8_t> message, const CryptKeys& keys);

    // True when every byte is below 0x80, as the script text decoding requires.
    static bool isAscii(std::span<const uint8_t> bytes);
};

}  // namespace tw
