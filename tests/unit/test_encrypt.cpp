// Encrypted scripts: the published vectors, round trips through the whole-buffer and streaming
// forms, damaged and truncated files, the ASCII rule of script text, and output naming.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "EngineFixture.h"
#include "TestSupport.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

// --- Helpers ---------------------------------------------------------------------------------

struct Vector {
    std::string title;
    std::string password;
    Bytes encryptionSalt, hmacSalt, iv, plaintext, ciphertext;
};

Bytes fromHex(std::string hex) {
    hex.erase(std::remove_if(hex.begin(), hex.end(), [](unsigned char c) { return std::isspace(c); }), hex.end());
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

template <size_t N>
std::array<uint8_t, N> toArray(const Bytes& bytes) {
    std::array<uint8_t, N> out{};
    EXPECT_EQ(bytes.size(), N);
    std::copy_n(bytes.begin(), std::min(N, bytes.size()), out.begin());
    return out;
}

std::vector<Vector> loadVectors() {
    std::ifstream in(std::string(TW_TEST_DATA_DIR) + "/rncryptor-v3-password.txt");
    std::vector<Vector> vectors;
    std::map<std::string, std::string> fields;
    auto flush = [&] {
        if (fields.count("title") && fields["version"] == "3") {
            vectors.push_back({fields["title"], fields["password"], fromHex(fields["enc_salt_hex"]),
                               fromHex(fields["hmac_salt_hex"]), fromHex(fields["iv_hex"]),
                               fromHex(fields["plaintext_hex"]), fromHex(fields["ciphertext_hex"])});
        }
        fields.clear();
    };
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#') continue;
        const auto colon = line.find(':');
        if (colon == std::string::npos) {
            flush();
            continue;
        }
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(" \t"));
        fields[line.substr(0, colon)] = value;
    }
    flush();
    return vectors;
}

Bytes randomBytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes out(size);
    for (auto& b : out) b = static_cast<uint8_t>(random());
    return out;
}

std::string randomAscii(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    std::string out(size, ' ');
    for (auto& c : out) c = static_cast<char>(random() % 0x80);
    return out;
}

Bytes readBytes(const fs::path& path) {
    const std::string s = test::readFile(path);
    return Bytes(s.begin(), s.end());
}

void writeBytes(const fs::path& path, const Bytes& bytes) { test::writeFile(path, std::string(bytes.begin(), bytes.end())); }

std::vector<std::string> entriesOf(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// What a message of `size` bytes cut from a longer valid one must fail with.
CryptError expectedCutError(size_t size) {
    if (size < kCryptMinimumPasswordMessage) return CryptError::tooShort;
    if ((size - kCryptPasswordHeaderSize - kCryptHmacSize) % kCryptBlockSize != 0) return CryptError::badLength;
    return CryptError::hmacMismatch;
}

constexpr const char* kPassword = "correct horse";

// --- Published vectors -----------------------------------------------------------------------

class EncryptVectorsTest : public ::testing::Test {
protected:
    void SetUp() override {
        vectors = loadVectors();
        ASSERT_EQ(vectors.size(), 4u) << "the vector file did not parse";
    }
    std::vector<Vector> vectors;
    test::TempDir dir{"tw-encrypt"};
};

TEST_F(EncryptVectorsTest, EveryVectorDecryptsToItsPlaintextAndEncryptsToItsCiphertext) {
    for (const auto& v : vectors) {
        SCOPED_TRACE(v.title);
        const Decrypted decrypted = Encrypt::decryptData(v.ciphertext, v.password);
        ASSERT_TRUE(decrypted) << describeCryptError(decrypted.error);
        EXPECT_EQ(decrypted.plaintext, v.plaintext);

        const Bytes encrypted = Encrypt::encryptData(v.plaintext, v.password, toArray<8>(v.encryptionSalt),
                                                     toArray<8>(v.hmacSalt), toArray<16>(v.iv));
        EXPECT_EQ(encrypted, v.ciphertext);
    }
    // The empty plaintext is one block of padding: 34 + 16 + 32 bytes.
    EXPECT_EQ(vectors[0].ciphertext.size(), 82u);
}

TEST_F(EncryptVectorsTest, EveryVectorDecryptsThroughTheStreamingFormInChunksOfAnySize) {
    for (const auto& v : vectors) {
        const fs::path in = dir.path() / "v.e";
        writeBytes(in, v.ciphertext);
        for (size_t chunk : {size_t{1}, size_t{5}, size_t{16}, size_t{33}, size_t{34}, size_t{35}, kCryptDefaultChunkSize}) {
            SCOPED_TRACE(v.title + ", chunks of " + std::to_string(chunk));
            const fs::path out = dir.path() / "v.out";
            ASSERT_EQ(Encrypt::decryptWithSemaphore(in.string(), v.password, out.string(), chunk), CryptError::none);
            EXPECT_EQ(readBytes(out), v.plaintext);
        }
    }
}

TEST_F(EncryptVectorsTest, KeyFormCarriesTheSameCiphertextAndNeedsItsOwnKind) {
    for (const auto& v : vectors) {
        SCOPED_TRACE(v.title);
        const auto keys = Encrypt::deriveKeys(v.password, toArray<8>(v.encryptionSalt), toArray<8>(v.hmacSalt));
        ASSERT_TRUE(keys);
        const Bytes keyForm = Encrypt::encryptData(v.plaintext, *keys, toArray<16>(v.iv));
        ASSERT_EQ(keyForm.size(), v.ciphertext.size() - 2 * kCryptSaltSize);
        EXPECT_EQ(keyForm[0], 3);
        EXPECT_EQ(keyForm[1], 0);
        // Header: version, options, IV; then the vector's own ciphertext, under a new HMAC.
        EXPECT_TRUE(std::equal(v.iv.begin(), v.iv.end(), keyForm.begin() + 2));
        EXPECT_TRUE(std::equal(keyForm.begin() + kCryptKeysHeaderSize, keyForm.end() - kCryptHmacSize,
                               v.ciphertext.begin() + kCryptPasswordHeaderSize));

        const Decrypted decrypted = Encrypt::decryptData(keyForm, *keys);
        ASSERT_TRUE(decrypted) << describeCryptError(decrypted.error);
        EXPECT_EQ(decrypted.plaintext, v.plaintext);

        // Each reader takes only its own form.
        EXPECT_EQ(Encrypt::decryptData(keyForm, v.password).error, CryptError::badOptions);
        EXPECT_EQ(Encrypt::decryptData(v.ciphertext, *keys).error, CryptError::badOptions);
        // Another HMAC key fails on the HMAC.
        CryptKeys otherHmac = *keys;
        otherHmac.hmac[31] ^= 1;
        EXPECT_EQ(Encrypt::decryptData(keyForm, otherHmac).error, CryptError::hmacMismatch);

        // And as a file, through the script reader (all vectors but the binary one byte are ASCII).
        const fs::path file = dir.path() / "k.e";
        writeBytes(file, keyForm);
        const auto text = Encrypt::decryptScript(file.string(), *keys);
        EXPECT_EQ(text.has_value(), Encrypt::isAscii(v.plaintext));
        if (text) {
            EXPECT_EQ(*text, std::string(v.plaintext.begin(), v.plaintext.end()));
        }
    }
}

TEST_F(EncryptVectorsTest, KeysDependOnPasswordAndSaltAndEachIsDerivedOnce) {
    const CryptSalt a{1, 2, 3, 4, 5, 6, 7, 8}, b{1, 2, 3, 4, 5, 6, 7, 9};
    const auto k1 = Encrypt::deriveKey("pw", a), k2 = Encrypt::deriveKey("pw", b), k3 = Encrypt::deriveKey("pX", a);
    ASSERT_TRUE(k1 && k2 && k3);
    EXPECT_NE(*k1, *k2);
    EXPECT_NE(*k1, *k3);
    const auto keys = Encrypt::deriveKeys("pw", a, b);
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys->encryption, *k1);
    EXPECT_EQ(keys->hmac, *k2);
    // PBKDF2-HMAC-SHA1, 10000 rounds, checked against the library's primitive directly.
    CryptKey reference{};
    ASSERT_EQ(PKCS5_PBKDF2_HMAC("pw", 2, a.data(), 8, 10000, EVP_sha1(), 32, reference.data()), 1);
    EXPECT_EQ(*k1, reference);
}

// --- Round trips -----------------------------------------------------------------------------

class EncryptRoundTripTest : public ::testing::Test {
protected:
    test::TempDir dir{"tw-encrypt"};
};

const std::vector<size_t> kSizes = {0, 1, 15, 16, 17, 31, 32, 33, 47, 48, 4095, 65536 + 7, 1 << 20};

TEST_F(EncryptRoundTripTest, BufferFormKeepsEveryByteAndHasTheFramedSize) {
    for (size_t size : kSizes) {
        SCOPED_TRACE(size);
        const Bytes plain = randomBytes(size, static_cast<uint32_t>(size));
        const Bytes message = Encrypt::encryptData(plain, kPassword);
        ASSERT_EQ(message.size(), kCryptPasswordHeaderSize + (size / 16 + 1) * 16 + kCryptHmacSize);
        EXPECT_EQ(message[0], 3);
        EXPECT_EQ(message[1], 1);
        const Decrypted back = Encrypt::decryptData(message, kPassword);
        ASSERT_TRUE(back) << describeCryptError(back.error);
        EXPECT_TRUE(back.plaintext == plain);
    }
}

TEST_F(EncryptRoundTripTest, SaltsAndIvAreFreshForEveryMessage) {
    const Bytes plain = randomBytes(100, 1);
    const Bytes m1 = Encrypt::encryptData(plain, kPassword), m2 = Encrypt::encryptData(plain, kPassword);
    ASSERT_EQ(m1.size(), m2.size());
    // Encryption salt, HMAC salt and IV each differ (a repeat of 8 random bytes is as good as never).
    for (auto [offset, length] : {std::pair{2, 8}, std::pair{10, 8}, std::pair{18, 16}})
        EXPECT_FALSE(std::equal(m1.begin() + offset, m1.begin() + offset + length, m2.begin() + offset)) << offset;
    EXPECT_NE(m1, m2);
    EXPECT_FALSE(std::equal(m1.begin() + 2, m1.begin() + 10, m1.begin() + 10)) << "both salts are the same";
}

TEST_F(EncryptRoundTripTest, StreamingAndWholeFileFormsReadEachOthersFiles) {
    const fs::path plainPath = dir.path() / "s.lua";
    const fs::path encrypted = dir.path() / "s.lua.e";
    const fs::path out = dir.path() / "s.out";
    for (size_t size : kSizes) {
        SCOPED_TRACE(size);
        const Bytes plain = randomBytes(size, static_cast<uint32_t>(size) + 11);
        writeBytes(plainPath, plain);
        const size_t chunk = size % 3 == 0 ? 7 : kCryptDefaultChunkSize;  // odd small chunks for some sizes

        // Whole-file encryption, streaming decryption.
        ASSERT_EQ(Encrypt::encryptScript(plainPath.string(), kPassword), CryptError::none);
        ASSERT_EQ(fs::file_size(encrypted), kCryptPasswordHeaderSize + (size / 16 + 1) * 16 + kCryptHmacSize);
        ASSERT_EQ(Encrypt::decryptWithSemaphore(encrypted.string(), kPassword, out.string(), chunk), CryptError::none);
        EXPECT_TRUE(readBytes(out) == plain);

        // Streaming encryption, buffer decryption and streaming decryption.
        ASSERT_EQ(Encrypt::encryptWithSemaphore(plainPath.string(), kPassword, chunk), CryptError::none);
        const Decrypted back = Encrypt::decryptData(readBytes(encrypted), kPassword);
        ASSERT_TRUE(back) << describeCryptError(back.error);
        EXPECT_TRUE(back.plaintext == plain);
        fs::remove(out);
        ASSERT_EQ(Encrypt::decryptWithSemaphore(encrypted.string(), kPassword, out.string()), CryptError::none);
        EXPECT_TRUE(readBytes(out) == plain);
    }
    EXPECT_EQ(entriesOf(dir.path()), (std::vector<std::string>{"s.lua", "s.lua.e", "s.out"}));
}

TEST_F(EncryptRoundTripTest, ScriptTextRoundTripsAndPasswordsAreBytesNotCharacters) {
    const fs::path script = dir.path() / "t.lua";
    const std::string text = randomAscii(5000, 3);
    test::writeFile(script, text);
    for (const std::string& password : {std::string(), std::string("p\xC3\xA4ss w\xC3\xB6rd"), std::string(300, 'x')}) {
        ASSERT_EQ(Encrypt::encryptScript(script.string(), password), CryptError::none);
        EXPECT_EQ(Encrypt::decryptScript(script.string() + ".e", password), text);
        EXPECT_FALSE(Encrypt::decryptScript(script.string() + ".e", password + " "));
    }
    // Decomposed and composed forms of the same letter are different passwords.
    ASSERT_EQ(Encrypt::encryptScript(script.string(), "\xC3\xA4"), CryptError::none);
    EXPECT_FALSE(Encrypt::decryptScript(script.string() + ".e", "a\xCC\x88"));
}

// --- Bad input -------------------------------------------------------------------------------

class EncryptBadInputTest : public ::testing::Test {
protected:
    void SetUp() override {
        plain = randomBytes(40, 9);
        message = Encrypt::encryptData(plain, kPassword);
        ASSERT_EQ(message.size(), 34u + 48u + 32u);
    }
    // Decrypts `bytes` as a buffer and as a file in several chunk sizes; all must agree. The output
    // file named by the streaming form holds "precious" before and must hold it after a failure.
    CryptError decryptEveryWay(const Bytes& bytes) {
        const CryptError buffer = Encrypt::decryptData(bytes, kPassword).error;
        const fs::path in = dir.path() / "m.e", out = dir.path() / "kept.txt";
        writeBytes(in, bytes);
        for (size_t chunk : {size_t{1}, size_t{13}, size_t{64}, kCryptDefaultChunkSize}) {
            test::writeFile(out, "precious");
            const CryptError streamed = Encrypt::decryptWithSemaphore(in.string(), kPassword, out.string(), chunk);
            EXPECT_EQ(streamed, buffer) << "chunks of " << chunk << ", " << bytes.size() << " bytes";
            if (streamed != CryptError::none) {
                EXPECT_EQ(test::readFile(out), "precious");
            }
        }
        EXPECT_EQ(entriesOf(dir.path()), (std::vector<std::string>{"kept.txt", "m.e"})) << "a temporary file was left";
        return buffer;
    }
    Bytes plain, message;
    test::TempDir dir{"tw-encrypt"};
};

TEST_F(EncryptBadInputTest, TheRightPasswordWorksAndAWrongOneFailsOnTheHmac) {
    EXPECT_EQ(decryptEveryWay(message), CryptError::none);
    EXPECT_EQ(Encrypt::decryptData(message, "correct hors").error, CryptError::hmacMismatch);
    EXPECT_EQ(Encrypt::decryptData(message, "").error, CryptError::hmacMismatch);
    EXPECT_EQ(Encrypt::decryptData(message, "Correct horse").error, CryptError::hmacMismatch);
    EXPECT_TRUE(Encrypt::decryptData(message, "nope").plaintext.empty());
}

TEST_F(EncryptBadInputTest, EveryChangedByteIsCaught) {
    for (size_t i = 0; i < message.size(); ++i) {
        for (uint8_t mask : {uint8_t{0x01}, uint8_t{0x80}}) {
            Bytes changed = message;
            changed[i] ^= mask;
            const CryptError expected = i == 0 ? CryptError::badVersion : i == 1 ? CryptError::badOptions : CryptError::hmacMismatch;
            EXPECT_EQ(Encrypt::decryptData(changed, kPassword).error, expected) << "byte " << i;
        }
    }
    // The streaming form agrees on a few places: the IV, the first and last ciphertext block, the HMAC.
    for (size_t i : {size_t{20}, size_t{34}, size_t{81}, size_t{82}, message.size() - 1}) {
        Bytes changed = message;
        changed[i] ^= 0x04;
        EXPECT_EQ(decryptEveryWay(changed), CryptError::hmacMismatch) << "byte " << i;
    }
}

TEST_F(EncryptBadInputTest, FilesCutAtEveryLengthFailWithoutReadingPastTheEnd) {
    for (size_t size = 0; size < message.size(); ++size) {
        // A copy of exactly `size` bytes, so that a read past it is a sanitizer error.
        const Bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(Encrypt::decryptData(cut, kPassword).error, expectedCutError(size)) << size << " bytes";
    }
    // The streaming form at the boundaries: inside the header, at its end, inside the first block,
    // short of the HMAC, one block short.
    for (size_t size : {size_t{0}, size_t{1}, size_t{2}, size_t{33}, size_t{34}, size_t{35}, size_t{50}, size_t{66},
                        size_t{81}, size_t{82}, size_t{83}, message.size() - 16, message.size() - 1}) {
        const Bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(decryptEveryWay(cut), expectedCutError(size)) << size << " bytes";
    }
    // Bytes added at the end are no better.
    Bytes longer = message;
    longer.push_back(0);
    EXPECT_EQ(decryptEveryWay(longer), CryptError::badLength);
    longer.insert(longer.end(), 15, 0);
    EXPECT_EQ(decryptEveryWay(longer), CryptError::hmacMismatch);
}

TEST_F(EncryptBadInputTest, OtherVersionsAndOptionsAreRefusedBeforeAnyKeyWork) {
    for (uint8_t version : {0, 1, 2, 4, 0xff}) {
        Bytes other = message;
        other[0] = version;
        EXPECT_EQ(decryptEveryWay(other), CryptError::badVersion) << int(version);
    }
    for (uint8_t options : {0, 2, 3, 0x81}) {
        Bytes other = message;
        other[1] = options;
        EXPECT_EQ(decryptEveryWay(other), CryptError::badOptions) << int(options);
    }
    // A text file is not a message.
    const std::string lua = "print('hello')\n";
    EXPECT_EQ(Encrypt::decryptData(Bytes(lua.begin(), lua.end()), kPassword).error, CryptError::badVersion);
}

TEST_F(EncryptBadInputTest, AnAuthenticMessageWithBadPaddingIsRefused) {
    // Built by hand: one block whose last byte is no valid padding, encrypted without padding and
    // signed with the right key, so only the padding check can catch it.
    CryptSalt encryptionSalt{}, hmacSalt{};
    CryptIv iv{};
    hmacSalt[0] = 1;
    auto keys = Encrypt::deriveKeys(kPassword, encryptionSalt, hmacSalt);
    ASSERT_TRUE(keys);
    for (uint8_t last : {uint8_t{0}, uint8_t{17}, uint8_t{2}}) {
        uint8_t block[16] = {};
        block[15] = last;  // 2 with a 0 before it: inconsistent padding
        Bytes msg{3, 1};
        msg.insert(msg.end(), encryptionSalt.begin(), encryptionSalt.end());
        msg.insert(msg.end(), hmacSalt.begin(), hmacSalt.end());
        msg.insert(msg.end(), iv.begin(), iv.end());
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        uint8_t out[32];
        int n = 0, m = 0;
        ASSERT_EQ(EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, keys->encryption.data(), iv.data()), 1);
        EVP_CIPHER_CTX_set_padding(ctx, 0);
        ASSERT_EQ(EVP_EncryptUpdate(ctx, out, &n, block, 16), 1);
        ASSERT_EQ(EVP_EncryptFinal_ex(ctx, out + n, &m), 1);
        EVP_CIPHER_CTX_free(ctx);
        msg.insert(msg.end(), out, out + n + m);
        uint8_t tag[32];
        unsigned tagSize = 0;
        HMAC(EVP_sha256(), keys->hmac.data(), 32, msg.data(), msg.size(), tag, &tagSize);
        msg.insert(msg.end(), tag, tag + tagSize);
        EXPECT_EQ(decryptEveryWay(msg), CryptError::badPadding) << int(last);
    }
}

TEST_F(EncryptBadInputTest, MissingFilesAndUnwritableOutputsAreReported) {
    const std::string missing = (dir.path() / "none.lua").string();
    EXPECT_EQ(Encrypt::encryptScript(missing, kPassword), CryptError::cannotRead);
    EXPECT_EQ(Encrypt::encryptWithSemaphore(missing, kPassword), CryptError::cannotRead);
    EXPECT_EQ(Encrypt::decryptWithSemaphore(missing, kPassword, missing + ".out"), CryptError::cannotRead);
    std::string text;
    EXPECT_EQ(Encrypt::decryptScript(missing, kPassword, text), CryptError::cannotRead);
    EXPECT_EQ(Encrypt::decryptScript(dir.str(), kPassword, text), CryptError::cannotRead) << "a folder";
    EXPECT_FALSE(Encrypt::decryptScript(missing, kPassword));

    const fs::path in = dir.path() / "m.e";
    writeBytes(in, message);
    EXPECT_EQ(Encrypt::decryptWithSemaphore(in.string(), kPassword, (dir.path() / "no/such/dir/out").string()),
              CryptError::cannotWrite);
    EXPECT_EQ(Encrypt::decryptWithSemaphore(in.string(), kPassword, dir.str()), CryptError::cannotWrite)
        << "a folder cannot be replaced by a file";
    EXPECT_EQ(entriesOf(dir.path()), (std::vector<std::string>{"m.e"}));
}

// --- Script text and files -------------------------------------------------------------------

using EncryptScriptTest = test::EngineFixture;

TEST_F(EncryptScriptTest, OnlyAsciiTextIsAScriptAndEverySuccessfulDecryptionLogsTheEmptyErrorLine) {
    const fs::path dir = FileManager::fullPathOfFile("/");
    struct Case {
        std::string text;
        bool script;
    };
    for (const Case& c : {Case{"print('ok')\n\x7f", true}, Case{"caf\xC3\xA9", false}, Case{std::string("\x80"), false},
                          Case{std::string("a\0b", 3), true}, Case{"", true}}) {
        test::writeFile(dir / "x.lua", c.text);
        ASSERT_EQ(Encrypt::encryptScript((dir / "x.lua").string(), "pw"), CryptError::none);
        std::string text = "untouched";
        const CryptError error = Encrypt::decryptScript((dir / "x.lua.e").string(), "pw", text);
        EXPECT_EQ(error, c.script ? CryptError::none : CryptError::notAscii);
        EXPECT_EQ(text, c.script ? c.text : "untouched");
        EXPECT_EQ(Encrypt::decryptScript((dir / "x.lua.e").string(), "pw").has_value(), c.script);
        // The bytes themselves still come out of the buffer form.
        const Decrypted bytes = Encrypt::decryptData(readBytes(dir / "x.lua.e"), "pw");
        ASSERT_TRUE(bytes);
        EXPECT_EQ(std::string(bytes.plaintext.begin(), bytes.plaintext.end()), c.text);
    }
    // Two decryptions per case, each logged whether or not the text was ASCII; failures log nothing.
    EXPECT_EQ(logMessages(), std::vector<std::string>(10, "error:"));
    EXPECT_FALSE(Encrypt::decryptScript((dir / "x.lua.e").string(), "wrong"));
    EXPECT_EQ(logMessages().size(), 10u);
}

TEST_F(EncryptScriptTest, OutputIsNamedWithEAppendedAndReplacesAnOlderOneWhole) {
    const fs::path dir = FileManager::fullPathOfFile("/");
    fs::remove_all(dir);
    fs::create_directories(dir);
    test::writeFile(dir / "a.lua", "print(1)");
    test::writeFile(dir / "plain", "print(2)");
    EXPECT_EQ(Encrypt::encryptedPathOf("/x/a.lua"), "/x/a.lua.e");
    EXPECT_EQ(Encrypt::passwordKeyOf("/sub/a.lua.e"), "script.password./sub/a.lua.e");

    ASSERT_EQ(Encrypt::encryptScript((dir / "a.lua").string(), "one"), CryptError::none);
    ASSERT_EQ(Encrypt::encryptWithSemaphore((dir / "plain").string(), "two"), CryptError::none);
    EXPECT_EQ(entriesOf(dir), (std::vector<std::string>{"a.lua", "a.lua.e", "plain", "plain.e"}));
    EXPECT_EQ(test::readFile(dir / "a.lua"), "print(1)") << "the plain file stays";
    EXPECT_EQ(Encrypt::decryptScript((dir / "a.lua.e").string(), "one"), "print(1)");
    EXPECT_EQ(Encrypt::decryptScript((dir / "plain.e").string(), "two"), "print(2)");

    // Encrypting again replaces the older file; a failed encryption leaves it alone.
    test::writeFile(dir / "a.lua", "print(3)");
    ASSERT_EQ(Encrypt::encryptWithSemaphore((dir / "a.lua").string(), "three", 3), CryptError::none);
    EXPECT_EQ(Encrypt::decryptScript((dir / "a.lua.e").string(), "three"), "print(3)");
    fs::remove(dir / "a.lua");
    EXPECT_EQ(Encrypt::encryptScript((dir / "a.lua").string(), "four"), CryptError::cannotRead);
    EXPECT_EQ(Encrypt::decryptScript((dir / "a.lua.e").string(), "three"), "print(3)");
    EXPECT_EQ(entriesOf(dir), (std::vector<std::string>{"a.lua.e", "plain", "plain.e"}));
}

TEST_F(EncryptScriptTest, StreamingDecryptionReportsTheBytesAsTheyFlow) {
    std::vector<std::string> lines;
    Encrypt::setDebugHandler([&](const std::string& line) { lines.push_back(line); });
    const fs::path dir = FileManager::fullPathOfFile("/");
    const std::string text = randomAscii(1000, 5);
    test::writeFile(dir / "d.lua", text);
    ASSERT_EQ(Encrypt::encryptScript((dir / "d.lua").string(), "pw"), CryptError::none);
    ASSERT_EQ(Encrypt::decryptWithSemaphore((dir / "d.lua.e").string(), "pw", (dir / "d.out").string(), 100),
              CryptError::none);
    Encrypt::setDebugHandler(nullptr);
    EXPECT_EQ(test::readFile(dir / "d.out"), text);

    // Chunks of 100 bytes with the running total; the plaintext handed over adds up to the text.
    const size_t fileSize = fs::file_size(dir / "d.lua.e");
    size_t fed = 0, received = 0, chunks = 0;
    for (const auto& line : lines) {
        unsigned long n = 0;
        long total = 0;
        if (std::sscanf(line.c_str(), "New bytes to decryptor: %lu Total: %ld", &n, &total) == 2) {
            fed += n;
            ++chunks;
            EXPECT_EQ(static_cast<size_t>(total), fed);
            EXPECT_LE(n, 100u);
        } else if (std::sscanf(line.c_str(), "Decryptor recevied %lu bytes", &n) == 1) {
            received += n;
        } else {
            ADD_FAILURE() << "unexpected line: " << line;
        }
    }
    EXPECT_EQ(fed, fileSize);
    EXPECT_EQ(chunks, (fileSize + 99) / 100);
    EXPECT_EQ(received, text.size());
}

}  // namespace
}  // namespace tw
