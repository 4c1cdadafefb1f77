// Encrypted scripts. Each input is tried as it is, in both forms of the format; then, since almost
// no input carries a valid HMAC, as the start of a password-form message whose length is made a
// whole number of blocks and whose HMAC is computed here, so the decryption, the padding and the
// text checks behind the HMAC are reached too. The whole-file and the streaming readers must agree.
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "library/Encrypt.h"

namespace {

using namespace tw;

const std::string kPassword = "fuzz";

Bytes withValidHmac(Bytes message) {
    message.resize(std::max(message.size(), kCryptPasswordHeaderSize + kCryptBlockSize));
    message[0] = kCryptVersion;
    message[1] = kCryptOptionsPassword;
    message.resize(kCryptPasswordHeaderSize + (message.size() - kCryptPasswordHeaderSize) / kCryptBlockSize * kCryptBlockSize);
    const auto hmacKey = Encrypt::deriveKey(kPassword, std::span(message).subspan(2 + kCryptSaltSize, kCryptSaltSize));
    FUZZ_CHECK(hmacKey);
    uint8_t tag[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), hmacKey->data(), static_cast<int>(hmacKey->size()), message.data(), message.size(), tag, &length);
    message.insert(message.end(), tag, tag + length);
    return message;
}

}  // namespace

TW_FUZZ_TARGET(encrypted_scripts) {
    using namespace tw;
    fuzz::RootInScratch root;  // a decrypted script logs a line
    const std::span<const uint8_t> input(data, size);
    Encrypt::decryptData(input, kPassword);
    Encrypt::decryptData(input, CryptKeys{});

    const Bytes message = withValidHmac(Bytes(data, data + size));
    const Decrypted whole = Encrypt::decryptData(message, kPassword);
    FUZZ_CHECK(whole.error == CryptError::none || whole.error == CryptError::badPadding);

    const std::string path = fuzz::Scratch::dir() + "/script.lua.e";
    const std::string out = fuzz::Scratch::dir() + "/script.lua";
    fuzz::writeFile(path, message.data(), message.size());
    std::string text;
    const CryptError script = Encrypt::decryptScript(path, kPassword, text);
    FUZZ_CHECK(whole ? (script == CryptError::none) == Encrypt::isAscii(whole.plaintext) : script == whole.error);

    const size_t chunk = size > 0 ? 1 + data[size - 1] % 64 : 1;
    FUZZ_CHECK(Encrypt::decryptWithSemaphore(path, kPassword, out, chunk) == whole.error);
    return 0;
}
