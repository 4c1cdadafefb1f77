// Encrypted scripts: published vectors, damaged messages, the ASCII rule and the streaming forms.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "EngineFixture.h"
#include "library/Encrypt.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

struct Vector {
    std::string title, password;
    Bytes plaintext, message;
};

Bytes fromHex(std::string hex) {
    std::erase(hex, ' ');
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

// The published vectors: "field: value" lines, a vector to a paragraph; their salts and IV are the
// message's header too.
std::vector<Vector> loadVectors() {
    std::istringstream in(test::readFile(std::string(TW_TEST_DATA_DIR) + "/rncryptor-v3-password.txt") + "\n\n");
    std::vector<Vector> vectors;
    std::map<std::string, std::string> f;
    for (std::string line; std::getline(in, line);) {
        const size_t colon = line.find(':');
        if (line.empty() && f.count("title"))
            vectors.push_back({f["title"], f["password"], fromHex(f["plaintext_hex"]), fromHex(f["ciphertext_hex"])});
        if (line.empty()) f.clear();
        else if (line[0] != '#' && colon != std::string::npos)
            f[line.substr(0, colon)] = line.substr(std::min(line.find_first_not_of(" \t", colon + 1), line.size()));
    }
    return vectors;
}

Bytes readBytes(const fs::path& path) {
    const std::string s = test::readFile(path);
    return Bytes(s.begin(), s.end());
}

void writeBytes(const fs::path& p, const Bytes& b) { test::writeFile(p, std::string(b.begin(), b.end())); }

TEST(EncryptTest, ThePublishedVectorsDecryptWholeOrInChunksAndEncryptByteForByte) {
    test::TempDir dir;
    const fs::path in = dir.path() / "v.e", out = dir.path() / "v";
    const auto vectors = loadVectors();
    ASSERT_EQ(vectors.size(), 4u) << "the vector file did not parse";
    for (const Vector& v : vectors) {
        SCOPED_TRACE(v.title);
        const Decrypted decrypted = Encrypt::decryptData(v.message, v.password);
        EXPECT_EQ(std::pair(decrypted.error, decrypted.plaintext), std::pair(CryptError::none, v.plaintext));
        writeBytes(in, v.message);
        for (size_t chunk : {size_t{1}, size_t{33}, size_t{35}, kCryptDefaultChunkSize}) {
            EXPECT_EQ(Encrypt::decryptWithSemaphore(in.string(), v.password, out.string(), chunk), CryptError::none);
            EXPECT_EQ(readBytes(out), v.plaintext) << "chunks of " << chunk;
        }
        ASSERT_GE(v.message.size(), kCryptPasswordHeaderSize);
        CryptSalt encryptionSalt, hmacSalt;
        CryptIv iv;
        std::copy_n(v.message.begin() + 2, 8, encryptionSalt.begin());
        std::copy_n(v.message.begin() + 10, 8, hmacSalt.begin());
        std::copy_n(v.message.begin() + 18, 16, iv.begin());
        EXPECT_EQ(Encrypt::encryptData(v.plaintext, v.password, encryptionSalt, hmacSalt, iv), v.message);
    }
}

TEST(EncryptTest, AWrongPasswordAChangedByteOrACutMessageIsRefusedForWhatIsWrongFirstAndGivesNothing) {
    const Bytes message = Encrypt::encryptData(Bytes(40, 'x'), "correct horse");  // 34 + 48 + 32 bytes
    ASSERT_EQ(message.size(), 114u);
    const Decrypted wrong = Encrypt::decryptData(message, "Correct horse");
    EXPECT_EQ(std::pair(wrong.error, wrong.plaintext), std::pair(CryptError::hmacMismatch, Bytes{}));
    for (size_t i = 0; i < message.size(); ++i) {
        Bytes changed = message;
        changed[i] ^= i % 2 ? 0x80 : 0x01;
        const auto expected = i == 0 ? CryptError::badVersion : i == 1 ? CryptError::badOptions
                                                                       : CryptError::hmacMismatch;
        EXPECT_EQ(Encrypt::decryptData(changed, "correct horse").error, expected) << "byte " << i;
        const Bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(i));  // exactly `i` bytes
        const auto cutError = i < 82 ? CryptError::tooShort : (i - 66) % 16 ? CryptError::badLength
                                                                            : CryptError::hmacMismatch;
        EXPECT_EQ(Encrypt::decryptData(cut, "correct horse").error, cutError) << "cut to " << i << " bytes";
    }
}

using EncryptScriptTest = test::EngineFixture;

TEST_F(EncryptScriptTest, OnlyAsciiTextIsAScriptAndEachDecryptionLogsTheEmptyErrorLine) {
    const fs::path plain = root->path() / "x.lua", enc = root->path() / "x.lua.e";
    struct Case { std::string text; bool script; };
    const Case cases[] = {{"print('ok')\n\x7f", true}, {std::string("a\0b", 3), true}, {"", true},
                          {"caf\xC3\xA9", false}, {"\x80", false}};
    for (const Case& c : cases) {
        test::writeFile(plain, c.text);
        ASSERT_EQ(Encrypt::encryptScript(plain.string(), "pw"), CryptError::none);
        std::string text = "untouched";
        EXPECT_EQ(Encrypt::decryptScript(enc.string(), "pw", text), c.script ? CryptError::none : CryptError::notAscii);
        EXPECT_EQ(text, c.script ? c.text : "untouched");
    }
    EXPECT_FALSE(Encrypt::decryptScript(enc.string(), "wrong"));
    EXPECT_EQ(logMessages(), std::vector<std::string>(std::size(cases), "error:"));
}

TEST(EncryptTest, TheStreamingFormsWriteTheSameFilesAndNothingOnFailure) {
    test::TempDir dir;
    const fs::path in = dir.path() / "s.e", out = dir.path() / "out", plain = dir.path() / "p";
    const Bytes bytes(65536 + 7, 0xA5);
    writeBytes(plain, bytes);
    ASSERT_EQ(Encrypt::encryptWithSemaphore(plain.string(), "pw", 7), CryptError::none);
    const Bytes message = readBytes(dir.path() / "p.e");
    EXPECT_EQ(Encrypt::decryptData(message, "pw").plaintext, bytes);
    // A damaged file fails as the whole-buffer form does, and leaves the output alone.
    for (auto [at, mask, error] : {std::tuple(1, 1, CryptError::badOptions), {40000, 4, CryptError::hmacMismatch},
                                   {-1, 0, CryptError::badLength}}) {
        Bytes damaged = message;
        at < 0 ? damaged.pop_back() : void(damaged.at(at) ^= static_cast<uint8_t>(mask));
        writeBytes(in, damaged);
        test::writeFile(out, "precious");
        EXPECT_EQ(Encrypt::decryptWithSemaphore(in.string(), "pw", out.string(), 1000), error) << at;
        EXPECT_EQ(test::readFile(out), "precious");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 4) << "s.e, out, p, p.e and nothing temporary";
}

}  // namespace
}  // namespace tw
