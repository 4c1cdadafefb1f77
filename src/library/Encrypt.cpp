#include "library/Encrypt.h"

#include <fcntl.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"
#include "core/Settings.h"
#include "platform/Platform.h"
#include "platform/UserDefaults.h"

namespace tw {

namespace {

// --- Small pieces of OpenSSL with owners ------------------------------------------------------

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct MacCtxFree {
    void operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
using MacCtx = std::unique_ptr<EVP_MAC_CTX, MacCtxFree>;

// Key material is wiped when it goes out of scope.
template <typename T>
struct Wiped {
    T value{};
    ~Wiped() { OPENSSL_cleanse(&value, sizeof value); }
};

// The HMAC algorithm, fetched once and shared by every thread.
EVP_MAC* hmacAlgorithm() {
    static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    return mac;
}

// HMAC-SHA256 fed piece by piece.
class Hmac {
public:
    bool init(const CryptKey& key) {
        if (!hmacAlgorithm()) return false;
        ctx_.reset(EVP_MAC_CTX_new(hmacAlgorithm()));
        if (!ctx_) return false;
        char digest[] = "SHA256";
        OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                               OSSL_PARAM_construct_end()};
        return EVP_MAC_init(ctx_.get(), key.data(), key.size(), params) == 1;
    }
    bool update(const uint8_t* data, size_t size) { return size == 0 || EVP_MAC_update(ctx_.get(), data, size) == 1; }
    bool final(std::array<uint8_t, kCryptHmacSize>& out) {
        size_t written = 0;
        return EVP_MAC_final(ctx_.get(), out.data(), &written, out.size()) == 1 && written == out.size();
    }

private:
    MacCtx ctx_;
};

// AES-256-CBC with PKCS#7 padding, either way.
class Cbc {
public:
    bool init(const CryptKey& key, const uint8_t* iv, bool encrypt) {
        ctx_.reset(EVP_CIPHER_CTX_new());
        return ctx_ && EVP_CipherInit_ex(ctx_.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv, encrypt ? 1 : 0) == 1;
    }
    // Appends what the cipher hands out for `size` more input bytes.
    bool update(const uint8_t* data, size_t size, Bytes& out) {
        if (size == 0) return true;
        const size_t start = out.size();
        out.resize(start + size + kCryptBlockSize);
        int written = 0;
        // EVP takes int lengths; feed very large buffers in slices.
        size_t done = 0;
        size_t end = start;
        while (done < size) {
            const int slice = static_cast<int>(std::min<size_t>(size - done, 1u << 30));
            if (EVP_CipherUpdate(ctx_.get(), out.data() + end, &written, data + done, slice) != 1) return false;
            end += static_cast<size_t>(written);
            done += static_cast<size_t>(slice);
        }
        out.resize(end);
        return true;
    }
    // The last block: the padding when encrypting; checks and strips it when decrypting.
    bool final(Bytes& out) {
        const size_t start = out.size();
        out.resize(start + kCryptBlockSize);
        int written = 0;
        const bool ok = EVP_CipherFinal_ex(ctx_.get(), out.data() + start, &written) == 1;
        out.resize(start + (ok ? static_cast<size_t>(written) : 0));
        return ok;
    }

private:
    CipherCtx ctx_;
};

bool randomBytes(uint8_t* out, size_t size) { return RAND_bytes(out, static_cast<int>(size)) == 1; }

size_t headerSizeFor(uint8_t options) {
    return options == kCryptOptionsPassword ? kCryptPasswordHeaderSize : kCryptKeysHeaderSize;
}

// The checks that need no key, in the order a reader meets the bytes.
CryptError checkFrame(std::span<const uint8_t> message, uint8_t expectedOptions) {
    if (message.empty()) return CryptError::tooShort;
    if (message[0] != kCryptVersion) return CryptError::badVersion;
    if (message.size() < 2) return CryptError::tooShort;
    if (message[1] != expectedOptions) return CryptError::badOptions;
    const size_t header = headerSizeFor(expectedOptions);
    if (message.size() < header + kCryptBlockSize + kCryptHmacSize) return CryptError::tooShort;
    if ((message.size() - header - kCryptHmacSize) % kCryptBlockSize != 0) return CryptError::badLength;
    return CryptError::none;
}

// Checks the HMAC of a framed message with `hmacKey`.
CryptError verifyHmac(std::span<const uint8_t> message, const CryptKey& hmacKey) {
    const size_t signedSize = message.size() - kCryptHmacSize;
    Hmac hmac;
    std::array<uint8_t, kCryptHmacSize> expected{};
    if (!hmac.init(hmacKey) || !hmac.update(message.data(), signedSize) || !hmac.final(expected))
        return CryptError::cryptoFailure;
    if (CRYPTO_memcmp(expected.data(), message.data() + signedSize, kCryptHmacSize) != 0)
        return CryptError::hmacMismatch;
    return CryptError::none;
}

// Decrypts the ciphertext of a framed message whose HMAC has been checked.
Decrypted decryptVerified(std::span<const uint8_t> message, size_t headerSize, const CryptKey& encryptionKey) {
    Decrypted result;
    const uint8_t* iv = message.data() + headerSize - kCryptIvSize;
    Cbc cbc;
    result.plaintext.reserve(message.size() - headerSize - kCryptHmacSize);
    if (!cbc.init(encryptionKey, iv, false) ||
        !cbc.update(message.data() + headerSize, message.size() - headerSize - kCryptHmacSize, result.plaintext)) {
        result.plaintext.clear();
        result.error = CryptError::cryptoFailure;
        return result;
    }
    if (!cbc.final(result.plaintext)) {
        OPENSSL_cleanse(result.plaintext.data(), result.plaintext.size());
        result.plaintext.clear();
        result.error = CryptError::badPadding;
    }
    return result;
}

// header (already in `out`) + ciphertext + HMAC.
bool sealMessage(Bytes& out, std::span<const uint8_t> plaintext, const CryptKeys& keys, const uint8_t* iv) {
    Cbc cbc;
    if (!cbc.init(keys.encryption, iv, true)) return false;
    out.reserve(out.size() + plaintext.size() + kCryptBlockSize + kCryptHmacSize);
    if (!cbc.update(plaintext.data(), plaintext.size(), out) || !cbc.final(out)) return false;
    Hmac hmac;
    std::array<uint8_t, kCryptHmacSize> tag{};
    if (!hmac.init(keys.hmac) || !hmac.update(out.data(), out.size()) || !hmac.final(tag)) return false;
    out.insert(out.end(), tag.begin(), tag.end());
    return true;
}

Bytes passwordHeader(const CryptSalt& encryptionSalt, const CryptSalt& hmacSalt, const CryptIv& iv) {
    Bytes header{kCryptVersion, kCryptOptionsPassword};
    header.insert(header.end(), encryptionSalt.begin(), encryptionSalt.end());
    header.insert(header.end(), hmacSalt.begin(), hmacSalt.end());
    header.insert(header.end(), iv.begin(), iv.end());
    return header;
}

// --- Files ------------------------------------------------------------------------------------

class InputFile {
public:
    explicit InputFile(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct stat st {};
        if (fd_ >= 0 && (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode))) {
            ::close(fd_);
            fd_ = -1;
        }
        if (fd_ >= 0) size_ = static_cast<size_t>(st.st_size);
    }
    ~InputFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    bool ok() const { return fd_ >= 0; }
    size_t size() const { return size_; }
    // Up to `size` bytes; 0 at the end; -1 on an error.
    ssize_t read(uint8_t* out, size_t size) {
        for (;;) {
            const ssize_t n = ::read(fd_, out, size);
            if (n >= 0 || errno != EINTR) return n;
        }
    }

private:
    int fd_ = -1;
    size_t size_ = 0;
};

std::span<const uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Decrypted text is kept to its owner; encrypted files get the usual permissions.
constexpr unsigned kDecryptedFileMode = 0600;

// --- Streaming cryptors -----------------------------------------------------------------------

// Writes a password-form message piece by piece.
class StreamEncryptor {
public:
    CryptError start(const std::string& password, Bytes& out) {
        CryptSalt encryptionSalt, hmacSalt;
        CryptIv iv;
        if (!randomBytes(encryptionSalt.data(), encryptionSalt.size()) ||
            !randomBytes(hmacSalt.data(), hmacSalt.size()) || !randomBytes(iv.data(), iv.size()))
            return CryptError::noRandom;
        Wiped<CryptKeys> keys;
        auto derived = Encrypt::deriveKeys(password, encryptionSalt, hmacSalt);
        if (!derived) return CryptError::cryptoFailure;
        keys.value = *derived;
        OPENSSL_cleanse(&*derived, sizeof *derived);
        const Bytes header = passwordHeader(encryptionSalt, hmacSalt, iv);
        if (!cbc_.init(keys.value.encryption, iv.data(), true) || !hmac_.init(keys.value.hmac) ||
            !hmac_.update(header.data(), header.size()))
            return CryptError::cryptoFailure;
        out.insert(out.end(), header.begin(), header.end());
        return CryptError::none;
    }
    CryptError update(const uint8_t* data, size_t size, Bytes& out) {
        const size_t start = out.size();
        if (!cbc_.update(data, size, out) || !hmac_.update(out.data() + start, out.size() - start))
            return CryptError::cryptoFailure;
        return CryptError::none;
    }
    CryptError finish(Bytes& out) {
        const size_t start = out.size();
        std::array<uint8_t, kCryptHmacSize> tag{};
        if (!cbc_.final(out) || !hmac_.update(out.data() + start, out.size() - start) || !hmac_.final(tag))
            return CryptError::cryptoFailure;
        out.insert(out.end(), tag.begin(), tag.end());
        return CryptError::none;
    }

private:
    Cbc cbc_;
    Hmac hmac_;
};

// Reads a password-form message piece by piece. The last 32 bytes seen are held back as the
// candidate HMAC; everything before them is ciphertext. The plaintext it hands out is not
// authentic until finish() says so.
class StreamDecryptor {
public:
    explicit StreamDecryptor(std::string password) : password_(std::move(password)) {}
    ~StreamDecryptor() { OPENSSL_cleanse(password_.data(), password_.size()); }

    CryptError addData(const uint8_t* data, size_t size, Bytes& out) {
        // The header, byte by byte as it comes.
        while (size > 0 && header_.size() < kCryptPasswordHeaderSize) {
            header_.push_back(*data++);
            --size;
            if (header_.size() == 1 && header_[0] != kCryptVersion) return CryptError::badVersion;
            if (header_.size() == 2 && header_[1] != kCryptOptionsPassword) return CryptError::badOptions;
            if (header_.size() == kCryptPasswordHeaderSize) {
                if (CryptError e = startWithHeader(); e != CryptError::none) return e;
            }
        }
        if (size == 0) return CryptError::none;
        if (size >= kCryptHmacSize) {
            if (CryptError e = consume(tail_.data(), tail_.size(), out); e != CryptError::none) return e;
            if (CryptError e = consume(data, size - kCryptHmacSize, out); e != CryptError::none) return e;
            tail_.assign(data + size - kCryptHmacSize, data + size);
            return CryptError::none;
        }
        tail_.insert(tail_.end(), data, data + size);
        if (tail_.size() > kCryptHmacSize) {
            const size_t spill = tail_.size() - kCryptHmacSize;
            if (CryptError e = consume(tail_.data(), spill, out); e != CryptError::none) return e;
            tail_.erase(tail_.begin(), tail_.begin() + static_cast<std::ptrdiff_t>(spill));
        }
        return CryptError::none;
    }

    CryptError finish(Bytes& out) {
        if (header_.size() < kCryptPasswordHeaderSize || tail_.size() < kCryptHmacSize ||
            ciphertextSize_ < kCryptBlockSize)
            return CryptError::tooShort;
        if (ciphertextSize_ % kCryptBlockSize != 0) return CryptError::badLength;
        std::array<uint8_t, kCryptHmacSize> expected{};
        if (!hmac_.final(expected)) return CryptError::cryptoFailure;
        if (CRYPTO_memcmp(expected.data(), tail_.data(), kCryptHmacSize) != 0) return CryptError::hmacMismatch;
        return cbc_.final(out) ? CryptError::none : CryptError::badPadding;
    }

private:
    CryptError startWithHeader() {
        CryptSalt encryptionSalt, hmacSalt;
        std::copy_n(header_.begin() + 2, kCryptSaltSize, encryptionSalt.begin());
        std::copy_n(header_.begin() + 2 + kCryptSaltSize, kCryptSaltSize, hmacSalt.begin());
        Wiped<CryptKeys> keys;
        auto derived = Encrypt::deriveKeys(password_, encryptionSalt, hmacSalt);
        if (!derived) return CryptError::cryptoFailure;
        keys.value = *derived;
        OPENSSL_cleanse(&*derived, sizeof *derived);
        const uint8_t* iv = header_.data() + kCryptPasswordHeaderSize - kCryptIvSize;
        if (!cbc_.init(keys.value.encryption, iv, false) || !hmac_.init(keys.value.hmac) ||
            !hmac_.update(header_.data(), header_.size()))
            return CryptError::cryptoFailure;
        return CryptError::none;
    }
    CryptError consume(const uint8_t* data, size_t size, Bytes& out) {
        ciphertextSize_ += size;
        if (!hmac_.update(data, size) || !cbc_.update(data, size, out)) return CryptError::cryptoFailure;
        return CryptError::none;
    }

    std::string password_;
    Bytes header_;
    Bytes tail_;
    size_t ciphertextSize_ = 0;
    Cbc cbc_;
    Hmac hmac_;
};

std::mutex debugMutex;
std::function<void(const std::string&)> debugHandler;

void debugLine(const char* format, auto... args) {
    std::function<void(const std::string&)> handler;
    {
        std::lock_guard lock(debugMutex);
        handler = debugHandler;
    }
    if (!handler) return;
    char line[128];
    std::snprintf(line, sizeof line, format, args...);
    handler(line);
}

// Runs `work` as the cryptor on a thread of its own; the caller blocks on a semaphore until the
// cryptor's completion handler releases it.
CryptError runCryptor(const std::function<CryptError()>& work) {
    std::binary_semaphore done{0};
    CryptError result = CryptError::cryptoFailure;
    auto completion = [&](CryptError error) {
        result = error;
        done.release();
    };
    std::thread cryptor([&] { completion(work()); });
    done.acquire();
    cryptor.join();
    return result;
}

CryptError finishScript(Decrypted decrypted, std::string& text) {
    if (!decrypted) return decrypted.error;
    LogToFile("error:%s", "");
    if (!Encrypt::isAscii(decrypted.plaintext)) {
        OPENSSL_cleanse(decrypted.plaintext.data(), decrypted.plaintext.size());
        return CryptError::notAscii;
    }
    text.assign(decrypted.plaintext.begin(), decrypted.plaintext.end());
    return CryptError::none;
}

}  // namespace

const char* describeCryptError(CryptError error) {
    switch (error) {
        case CryptError::none: return "no error";
        case CryptError::cannotRead: return "the file cannot be read";
        case CryptError::tooShort: return "the file is too short to be an encrypted script (cut off?)";
        case CryptError::badVersion: return "not an encrypted script (format version is not 3)";
        case CryptError::badOptions: return "unsupported encryption options in the file header";
        case CryptError::badLength: return "the encrypted data is not a whole number of blocks (cut off?)";
        case CryptError::hmacMismatch: return "wrong password, or the file was changed";
        case CryptError::badPadding: return "the decrypted data has invalid padding";
        case CryptError::notAscii: return "the decrypted script is not ASCII text";
        case CryptError::cannotWrite: return "the output file cannot be written";
        case CryptError::noRandom: return "the system's random source failed";
        case CryptError::cryptoFailure: return "the cryptographic library failed";
    }
    return "unknown error";
}

std::string Encrypt::encryptedPathOf(const std::string& path) { return path + ".e"; }

std::string Encrypt::rememberedPassword(const std::string& libraryPath) {
    auto defaults = Platform::current().standardDefaults;
    return defaults ? defaults->stringForKey(passwordKeyOf(libraryPath)).value_or("") : std::string();
}

std::string Encrypt::passwordKeyOf(const std::string& libraryPath) {
    std::string key = settings::kScriptPasswordFormat;
    key.replace(key.find("%s"), 2, libraryPath);
    return key;
}

bool Encrypt::isAscii(std::span<const uint8_t> bytes) {
    for (uint8_t b : bytes)
        if (b >= 0x80) return false;
    return true;
}

std::optional<CryptKey> Encrypt::deriveKey(const std::string& password, std::span<const uint8_t> salt) {
    CryptKey key{};
    if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(),
                          static_cast<int>(salt.size()), kCryptPbkdf2Rounds, EVP_sha1(), static_cast<int>(key.size()),
                          key.data()) != 1)
        return std::nullopt;
    return key;
}

std::optional<CryptKeys> Encrypt::deriveKeys(const std::string& password, const CryptSalt& encryptionSalt,
                                             const CryptSalt& hmacSalt) {
    auto encryption = deriveKey(password, encryptionSalt);
    auto hmac = deriveKey(password, hmacSalt);
    if (!encryption || !hmac) return std::nullopt;
    CryptKeys keys{*encryption, *hmac};
    OPENSSL_cleanse(&*encryption, sizeof *encryption);
    OPENSSL_cleanse(&*hmac, sizeof *hmac);
    return keys;
}

Bytes Encrypt::encryptData(std::span<const uint8_t> plaintext, const std::string& password,
                           const CryptSalt& encryptionSalt, const CryptSalt& hmacSalt, const CryptIv& iv) {
    auto keys = deriveKeys(password, encryptionSalt, hmacSalt);
    if (!keys) return {};
    Bytes message = passwordHeader(encryptionSalt, hmacSalt, iv);
    const bool ok = sealMessage(message, plaintext, *keys, iv.data());
    OPENSSL_cleanse(&*keys, sizeof *keys);
    return ok ? message : Bytes{};
}

Bytes Encrypt::encryptData(std::span<const uint8_t> plaintext, const std::string& password) {
    CryptSalt encryptionSalt, hmacSalt;
    CryptIv iv;
    if (!randomBytes(encryptionSalt.data(), encryptionSalt.size()) || !randomBytes(hmacSalt.data(), hmacSalt.size()) ||
        !randomBytes(iv.data(), iv.size()))
        return {};
    return encryptData(plaintext, password, encryptionSalt, hmacSalt, iv);
}

Bytes Encrypt::encryptData(std::span<const uint8_t> plaintext, const CryptKeys& keys, const CryptIv& iv) {
    Bytes message{kCryptVersion, kCryptOptionsKeys};
    message.insert(message.end(), iv.begin(), iv.end());
    return sealMessage(message, plaintext, keys, iv.data()) ? message : Bytes{};
}

Decrypted Encrypt::decryptData(std::span<const uint8_t> message, const std::string& password) {
    if (CryptError e = checkFrame(message, kCryptOptionsPassword); e != CryptError::none) return {{}, e};
    // The HMAC key first: a wrong password is found out after one derivation, not two.
    Wiped<CryptKey> hmacKey, encryptionKey;
    auto hmac = deriveKey(password, message.subspan(2 + kCryptSaltSize, kCryptSaltSize));
    if (!hmac) return {{}, CryptError::cryptoFailure};
    hmacKey.value = *hmac;
    OPENSSL_cleanse(&*hmac, sizeof *hmac);
    if (CryptError e = verifyHmac(message, hmacKey.value); e != CryptError::none) return {{}, e};
    auto encryption = deriveKey(password, message.subspan(2, kCryptSaltSize));
    if (!encryption) return {{}, CryptError::cryptoFailure};
    encryptionKey.value = *encryption;
    OPENSSL_cleanse(&*encryption, sizeof *encryption);
    return decryptVerified(message, kCryptPasswordHeaderSize, encryptionKey.value);
}

Decrypted Encrypt::decryptData(std::span<const uint8_t> message, const CryptKeys& keys) {
    if (CryptError e = checkFrame(message, kCryptOptionsKeys); e != CryptError::none) return {{}, e};
    if (CryptError e = verifyHmac(message, keys.hmac); e != CryptError::none) return {{}, e};
    return decryptVerified(message, kCryptKeysHeaderSize, keys.encryption);
}

CryptError Encrypt::encryptScript(const std::string& path, const std::string& password) {
    auto plaintext = readWholeFile(path);
    if (!plaintext) return CryptError::cannotRead;
    const Bytes message = encryptData(bytesOf(*plaintext), password);
    OPENSSL_cleanse(plaintext->data(), plaintext->size());
    if (message.empty()) return CryptError::noRandom;
    AtomicFileWriter out(encryptedPathOf(path));
    if (!out.write(message.data(), message.size()) || !out.commit()) return CryptError::cannotWrite;
    return CryptError::none;
}

CryptError Encrypt::decryptScript(const std::string& path, const std::string& password, std::string& text) {
    const auto message = readWholeFile(path);
    if (!message) return CryptError::cannotRead;
    return finishScript(decryptData(bytesOf(*message), password), text);
}

std::optional<std::string> Encrypt::decryptScript(const std::string& path, const std::string& password) {
    std::string text;
    if (decryptScript(path, password, text) != CryptError::none) return std::nullopt;
    return text;
}

std::optional<std::string> Encrypt::decryptScript(const std::string& path, const CryptKeys& keys) {
    const auto message = readWholeFile(path);
    if (!message) return std::nullopt;
    std::string text;
    if (finishScript(decryptData(bytesOf(*message), keys), text) != CryptError::none) return std::nullopt;
    return text;
}

CryptError Encrypt::encryptWithSemaphore(const std::string& path, const std::string& password, size_t chunkSize) {
    if (chunkSize == 0) chunkSize = kCryptDefaultChunkSize;
    return runCryptor([&]() -> CryptError {
        InputFile in(path);
        if (!in.ok()) return CryptError::cannotRead;
        AtomicFileWriter out(encryptedPathOf(path));
        if (!out.ok()) return CryptError::cannotWrite;
        StreamEncryptor encryptor;
        Bytes produced;
        if (CryptError e = encryptor.start(password, produced); e != CryptError::none) return e;
        Bytes chunk(chunkSize);
        for (;;) {
            const ssize_t n = in.read(chunk.data(), chunk.size());
            if (n < 0) return CryptError::cannotRead;
            if (n == 0) break;
            if (CryptError e = encryptor.update(chunk.data(), static_cast<size_t>(n), produced); e != CryptError::none)
                return e;
            if (!out.write(produced.data(), produced.size())) return CryptError::cannotWrite;
            produced.clear();
        }
        OPENSSL_cleanse(chunk.data(), chunk.size());
        if (CryptError e = encryptor.finish(produced); e != CryptError::none) return e;
        if (!out.write(produced.data(), produced.size()) || !out.commit()) return CryptError::cannotWrite;
        return CryptError::none;
    });
}

CryptError Encrypt::decryptWithSemaphore(const std::string& path, const std::string& password,
                                         const std::string& outPath, size_t chunkSize) {
    if (chunkSize == 0) chunkSize = kCryptDefaultChunkSize;
    return runCryptor([&]() -> CryptError {
        InputFile in(path);
        if (!in.ok()) return CryptError::cannotRead;
        AtomicFileWriter out(outPath, kDecryptedFileMode);
        if (!out.ok()) return CryptError::cannotWrite;
        StreamDecryptor decryptor(password);
        Bytes chunk(chunkSize);
        Bytes plaintext;
        long total = 0;
        for (;;) {
            const ssize_t n = in.read(chunk.data(), chunk.size());
            if (n < 0) return CryptError::cannotRead;
            if (n == 0) break;
            total += n;
            debugLine("New bytes to decryptor: %lu Total: %ld", static_cast<unsigned long>(n), total);
            if (CryptError e = decryptor.addData(chunk.data(), static_cast<size_t>(n), plaintext); e != CryptError::none)
                return e;
            if (!plaintext.empty()) {
                // "recevied": the system's own spelling of this debug line, kept as it is.
                debugLine("Decryptor recevied %lu bytes", static_cast<unsigned long>(plaintext.size()));
                if (!out.write(plaintext.data(), plaintext.size())) return CryptError::cannotWrite;
                OPENSSL_cleanse(plaintext.data(), plaintext.size());
                plaintext.clear();
            }
        }
        if (CryptError e = decryptor.finish(plaintext); e != CryptError::none) return e;
        if (!plaintext.empty()) debugLine("Decryptor recevied %lu bytes", static_cast<unsigned long>(plaintext.size()));
        const bool written = out.write(plaintext.data(), plaintext.size()) && out.commit();
        OPENSSL_cleanse(plaintext.data(), plaintext.size());
        return written ? CryptError::none : CryptError::cannotWrite;
    });
}

void Encrypt::setDebugHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard lock(debugMutex);
    debugHandler = std::move(handler);
}

}  // namespace tw
