// tapwright encrypt / decrypt: encrypted scripts (".e" files) from plain files and back.
#include <cstdio>
#include <filesystem>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"

namespace fs = std::filesystem;

namespace tw::cli {

namespace {

struct CryptOptions {
    std::string file;
    std::string password;
    std::string out;
};

constexpr const char* kFormatNote =
    "Encrypted scripts use version 3 of the RNCryptor data format, password form: AES-256-CBC and\n"
    "HMAC-SHA256 with keys derived by PBKDF2 (10000 rounds) and fresh random salts and IV per file.\n";

// The file a FILE argument names: a library path ("/name.lua") of the device's script library when
// such a script exists there, else the file on disk. Nothing is created on the way.
std::string locate(const CommonOptions& common, const std::string& file) {
    std::error_code ec;
    if (!file.empty() && file.front() == '/') {
        Paths::setRoot(deviceRoot(common));
        const std::string inLibrary = FileManager::fullPathOfFile(file);
        if (fs::is_regular_file(inLibrary, ec) && FileManager::isInsideLibrary(file)) return inLibrary;
    }
    return file;
}

void requireFile(const std::string& path, const std::string& given) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) fail("no file '" + given + "'");
}

int encrypt(const CommonOptions& common, const CryptOptions& options) {
    const std::string path = locate(common, options.file);
    requireFile(path, options.file);
    if (CryptError e = Encrypt::encryptWithSemaphore(path, options.password); e != CryptError::none)
        fail("cannot encrypt " + path + ": " + describeCryptError(e));
    std::printf("%s\n", Encrypt::encryptedPathOf(path).c_str());
    return 0;
}

int decrypt(const CommonOptions& common, const CryptOptions& options) {
    const std::string path = locate(common, options.file);
    requireFile(path, options.file);

    std::string out = options.out;
    if (out.empty()) {
        if (path.size() <= 2 || path.compare(path.size() - 2, 2, ".e") != 0)
            fail(path + " does not end in .e; name the output with --out");
        out = path.substr(0, path.size() - 2);
        std::error_code ec;
        if (fs::exists(out, ec)) fail(out + " exists; name the output with --out to replace it");
    }
    if (CryptError e = Encrypt::decryptWithSemaphore(path, options.password, out); e != CryptError::none)
        fail("cannot decrypt " + path + ": " + describeCryptError(e));
    std::printf("%s\n", out.c_str());
    return 0;
}

}  // namespace

Command addEncryptCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<CryptOptions>();
    auto* sub = app.add_subcommand("encrypt", "Encrypt a script with a password into FILE.e");
    sub->footer(std::string("FILE is a library path (/name.lua) of the device's script library or a file on disk.\n"
                            "The encrypted file is written beside it with \".e\" appended (a.lua -> a.lua.e), replacing\n"
                            "one that is there; the plain file stays. Its path is printed on stdout.\n") +
                kFormatNote + "Exit status: 0 when the file was written, 1 otherwise (with one line on stderr).");
    sub->add_option("file", options->file, "Script to encrypt: library path or file")->required();
    sub->add_option("--password", options->password, "The password (any text; UTF-8)")->required();
    sub->add_option("--root", common.root, "Device root folder, for library paths");
    return {sub, [&common, options] { return encrypt(common, *options); }};
}

Command addDecryptCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<CryptOptions>();
    auto* sub = app.add_subcommand("decrypt", "Decrypt FILE.e with its password");
    sub->footer(std::string("FILE is a library path (/name.e) of the device's script library or a file on disk.\n"
                            "The plain bytes go to --out, or to FILE without \".e\" when that does not exist yet;\n"
                            "the output appears only once the file has proved authentic, and a failure leaves any\n"
                            "existing file alone. Its path is printed on stdout.\n") +
                kFormatNote + "Exit status: 0 when the file was written, 1 otherwise (with one line on stderr).");
    sub->add_option("file", options->file, "Encrypted script: library path or file")->required();
    sub->add_option("--password", options->password, "The password it was encrypted with")->required();
    sub->add_option("--out", options->out, "Output file (replaced if it exists)");
    sub->add_option("--root", common.root, "Device root folder, for library paths");
    return {sub, [&common, options] { return decrypt(common, *options); }};
}

}  // namespace tw::cli
