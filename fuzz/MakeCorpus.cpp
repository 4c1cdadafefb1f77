// Writes the seed inputs of every fuzz target into fuzz/corpus/<target>/, made with the engine's
// own encoders: a valid frame of each kind, BMP and PNG pictures, property lists in both forms,
// encrypted scripts (with the fuzzing build's lowered key-derivation rounds) and so on.
//
//   build-fuzz/fuzz/tw_make_corpus fuzz/corpus tests/data
#include <png.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "core/Plist.h"
#include "device/VirtualDisplay.h"
#include "graphic/Bmp.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TextRecord.h"
#include "injection/records/TouchRecord.h"
#include "library/Encrypt.h"

namespace fs = std::filesystem;
using namespace tw;

namespace {

std::string corpusDir;

void seed(const std::string& target, const std::string& name, const std::string& bytes) {
    const fs::path dir = fs::path(corpusDir) / target;
    fs::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << bytes;
}

std::string str(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

std::string le32(uint32_t value) {
    Bytes out(4);
    putLE<uint32_t>(out, 0, value);
    return str(out);
}

// A request frame as the remote side writes it.
std::string frame(uint32_t sequence, int32_t msgid, bool expectReply, const Payload& data) {
    const size_t payload = data ? data->size() : 0;
    std::string out = le32(static_cast<uint32_t>(9 + payload)) + le32(sequence) + le32(static_cast<uint32_t>(msgid));
    out.push_back(static_cast<char>((expectReply ? 1 : 0) | (data ? 2 : 0)));
    if (data) out += str(*data);
    return out;
}

// A request in the injector target's own encoding: id, length (255: null data), bytes.
std::string request(int32_t msgid, const Payload& data) {
    std::string out(1, static_cast<char>(msgid));
    out.push_back(static_cast<char>(data ? data->size() : 255));
    if (data) out += str(*data);
    return out;
}

std::string binaryOf(plist_t node) { return plistToBinary(node).value_or(""); }
std::string xmlOf(plist_t node) { return plistToXml(node).value_or(""); }

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void messagePorts() {
    const Bytes touch = TouchRecord{kTouchDown, 1, 100.5, 200.25}.encode();
    const Bytes key = KeyRecord{0x40, kConsumerUsagePage, 1}.encode();
    seed("port_frames", "sync", frame(1, kMsgSync, true, std::nullopt));
    seed("port_frames", "touch-sync", frame(1, kMsgTouch, true, touch) + frame(2, kMsgSync, true, std::nullopt));
    seed("port_frames", "key", frame(3, kMsgKey, true, key));
    seed("port_frames", "text", frame(4, kMsgText, true, TextRecord{"hello"}.encode()));
    seed("port_frames", "options", frame(5, kMsgScaleScreen, false, OptionRecord{1}.encode()) +
                                       frame(6, kMsgOrientation, false, OptionRecord{3}.encode()));
    seed("port_frames", "empty-payload", frame(7, kMsgText, true, Bytes{}));

    seed("injector_requests", "touch-sync",
         request(kMsgTouch, touch) + request(kMsgTouch, TouchRecord{kTouchMove, 1, 110, 210}.encode()) +
             request(kMsgSync, std::nullopt) + request(kMsgTouch, TouchRecord{kTouchUp, 1, 110, 210}.encode()) +
             request(kMsgSync, std::nullopt));
    seed("injector_requests", "two-fingers-scaled",
         request(kMsgScaleScreen, OptionRecord{1}.encode()) + request(kMsgTouch, touch) +
             request(kMsgTouch, TouchRecord{kTouchDown, 2, 10, 20}.encode()) + request(kMsgSync, std::nullopt));
    seed("injector_requests", "key", request(kMsgKey, key) + request(kMsgKey, KeyRecord{0x40, 12, 0}.encode()));
    seed("injector_requests", "text", request(kMsgText, TextRecord{"h\xC3\xA9llo"}.encode()));
    seed("injector_requests", "orientation", request(kMsgOrientation, OptionRecord{2}.encode()) + request(9, Bytes{1}));
}

void hidLines() {
    seed("hid_lines", "touches",
         std::string(1, '\0') +
             "{\"kind\":\"touch\",\"phase\":\"down\",\"finger\":1,\"x\":100,\"y\":200}\n"
             "{\"kind\":\"touch\",\"phase\":\"move\",\"finger\":1,\"x\":110.5,\"y\":210}\n"
             "{\"kind\":\"touch\",\"phase\":\"up\",\"finger\":1,\"x\":110.5,\"y\":210}\n");
    seed("hid_lines", "buttons",
         std::string(1, '\0') +
             "{\"kind\":\"button\",\"usage\":64,\"down\":true}\n"
             "{\"kind\":\"button\",\"usage\":64,\"usagePage\":12,\"down\":false}\n");
    seed("hid_lines", "hub",
         std::string(1, '\1') + "subscribe\npublish {\"kind\":\"text\",\"bundle\":\"com.example\",\"field\":\"hi\"}\n");
}

void notifications() {
    auto datagram = [](const std::string& name, const NotificationUserInfo& info) {
        PlistHandle root(plist_new_dict());
        plist_dict_set_item(root.get(), "name", plist_new_string(name.c_str()));
        plist_t dict = plist_new_dict();
        for (const auto& [key, value] : info) plist_dict_set_item(dict, key.c_str(), plist_new_string(value.c_str()));
        plist_dict_set_item(root.get(), "userInfo", dict);
        return binaryOf(root.get());
    };
    seed("notification_payloads", "text", datagram(kInputTextNotification, {{"text", "hello"}}));
    // Non-ASCII texts are written as UTF-16.
    seed("notification_payloads", "text-utf16",
         datagram(kInputTextNotification, {{"text", "h\xC3\xA9llo \xE2\x9C\x93\b"}, {"k\xC3\xA9y", "v"}}));
    seed("notification_payloads", "other", datagram("me.tapwright.other", {}));
}

void pictures() {
    const std::string bmp = fuzz::Scratch::dir() + "/seed.bmp";
    const uint8_t pixels[2 * 3 * 4] = {1, 2, 3, 255, 4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255, 13, 14, 15, 255, 16, 17, 18, 255};
    save_bmp(bmp.c_str(), pixels, 2, 3);
    const std::string bmp32 = readFile(bmp);
    seed("bmp_files", "bgra-2x3.bmp", bmp32);
    // The same picture with its rows top first, and as 24 bits a pixel (rows padded to 4 bytes).
    std::string topDown = bmp32;
    const int32_t minusThree = -3;
    std::memcpy(topDown.data() + 22, &minusThree, 4);
    seed("bmp_files", "top-down.bmp", topDown);
    std::string rgb = bmp32.substr(0, kBmpHeaderSize);
    rgb[28] = 24;
    for (int row = 0; row < 3; ++row) {
        for (int x = 0; x < 2; ++x) rgb += bmp32.substr(kBmpHeaderSize + (row * 2 + x) * 4, 3);
        rgb += std::string(2, '\0');
    }
    seed("bmp_files", "bgr-2x3.bmp", rgb);

    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = 2;
    image.height = 3;
    image.format = PNG_FORMAT_BGRA;
    png_alloc_size_t size = 0;
    png_image_write_to_memory(&image, nullptr, &size, 0, pixels, 0, nullptr);
    std::string png(size, '\0');
    if (png_image_write_to_memory(&image, png.data(), &size, 0, pixels, 0, nullptr)) seed("bmp_files", "bgra-2x3.png", png.substr(0, size));

    const std::string runDir = fuzz::Scratch::dir() + "/run";
    if (auto framebuffer = device::Framebuffer::create(runDir, 4, 3, nullptr)) {
        framebuffer->fill(0x336699);
        framebuffer.reset();
        std::string display = readFile(device::displayPath(runDir));
        seed("display_header", "4x3", display);
        // Rows wider than the picture: 24 bytes a row for 4 pixels.
        std::string padded = display.substr(0, device::kDisplayHeaderSize);
        const uint32_t rowBytes = 24;
        std::memcpy(padded.data() + 16, &rowBytes, 4);
        padded += std::string(rowBytes * 3, '\x7f');
        seed("display_header", "4x3-padded", padded);
    }
}

void propertyLists() {
    PlistHandle defaults(plist_new_dict());
    plist_dict_set_item(defaults.get(), "key", plist_new_string("value"));
    plist_dict_set_item(defaults.get(), "flag", plist_new_bool(1));
    plist_dict_set_item(defaults.get(), "number", plist_new_uint(42));
    plist_dict_set_item(defaults.get(), "real", plist_new_real(1.5));
    plist_dict_set_item(defaults.get(), "text", plist_new_string("t\xC3\xA9xt"));
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_data("\x01\x02", 2));
    plist_array_append_item(list, plist_new_date(100, 0));
    plist_dict_set_item(defaults.get(), "kept", list);
    seed("user_defaults", "binary", binaryOf(defaults.get()));
    seed("user_defaults", "xml", xmlOf(defaults.get()));
    seed("plist_bytes", "binary", binaryOf(defaults.get()));
    seed("plist_bytes", "xml", xmlOf(defaults.get()));

    PlistHandle table(plist_new_dict());
    for (const char* app : {"com.example.maps", "com.example.other"}) {
        plist_t pair = plist_new_array();
        plist_array_append_item(pair, plist_new_real(35.5));
        plist_array_append_item(pair, plist_new_real(139.25));
        plist_dict_set_item(table.get(), app, pair);
    }
    seed("locations_table", "xml", xmlOf(table.get()));
    seed("locations_table", "binary", binaryOf(table.get()));

    PlistHandle info(plist_new_dict());
    plist_dict_set_item(info.get(), "CFBundleIdentifier", plist_new_string("com.example.maps"));
    plist_dict_set_item(info.get(), "CFBundleName", plist_new_string("Maps"));
    plist_dict_set_item(info.get(), "CFBundleVersion", plist_new_string("1.0"));
    seed("info_plists", "info-xml", xmlOf(info.get()));
    seed("info_plists", "info-binary", binaryOf(info.get()));
    PlistHandle types(plist_new_dict());
    plist_t text = plist_new_dict();
    plist_t icons = plist_new_dict();
    plist_dict_set_item(icons, "txt", plist_new_string("text"));
    plist_dict_set_item(text, "Icons", icons);
    plist_dict_set_item(text, "DefaultIcon", plist_new_string("text"));
    plist_dict_set_item(types.get(), "text/plain", text);
    seed("info_plists", "mimetypes-xml", xmlOf(types.get()));
    seed("plist_bytes", "nested-binary", binaryOf(types.get()));
}

void encryptedScripts(const std::string& testData) {
    const std::string script = "-- SCREEN_RESOLUTION=\"320x568\"\nprint('hello')\n";
    const std::span<const uint8_t> plaintext(reinterpret_cast<const uint8_t*>(script.data()), script.size());
    seed("encrypted_scripts", "password-form",
         str(Encrypt::encryptData(plaintext, "fuzz", CryptSalt{1, 2, 3, 4, 5, 6, 7, 8}, CryptSalt{8, 7, 6, 5, 4, 3, 2, 1},
                                  CryptIv{})));
    seed("encrypted_scripts", "key-form", str(Encrypt::encryptData(plaintext, CryptKeys{}, CryptIv{})));
    // The published vectors (made with the product's rounds): their frames, not their HMACs, are
    // of use here.
    std::ifstream vectors(testData + "/rncryptor-v3-password.txt");
    int n = 0;
    for (std::string line; std::getline(vectors, line);) {
        if (line.rfind("ciphertext_hex:", 0) != 0) continue;
        std::string bytes, hex;
        for (char c : line.substr(15))
            if (std::isxdigit(static_cast<unsigned char>(c))) hex.push_back(c);
        for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        seed("encrypted_scripts", "vector-" + std::to_string(++n), bytes);
    }

    seed("scale_screen", "points", script);
    seed("scale_screen", "pixels", "--SCREEN_RESOLUTION=\"640x1136\"\nSCREEN_RESOLUTION=\"x\"\n");
    seed("scale_screen", "none", "touchDown(1, 100, 200)\n\xC3");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: tw_make_corpus <corpus folder> <test data folder>\n";
        return 2;
    }
    corpusDir = argv[1];
    fuzz::RootInScratch root;
    messagePorts();
    hidLines();
    notifications();
    pictures();
    propertyLists();
    encryptedScripts(argv[2]);
    return 0;
}
