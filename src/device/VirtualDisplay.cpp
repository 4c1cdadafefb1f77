#include "device/VirtualDisplay.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/AtomicFile.h"

namespace tw::device {

namespace {

constexpr char kMagic[8] = {'T', 'W', 'D', 'I', 'S', 'P', '0', '1'};

struct Header {
    char magic[8];
    uint32_t width;
    uint32_t height;
    uint32_t bytesPerRow;
};

}  // namespace

std::string displayPath(const std::string& runDir) { return runDir + "/display"; }

Framebuffer::~Framebuffer() {
    if (base_) munmap(base_, size_);
}

std::unique_ptr<Framebuffer> Framebuffer::open(const std::string& runDir, std::string* error) {
    const std::string path = displayPath(runDir);
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = "no display at " + path + " (no device has run on this root)";
        return nullptr;
    }
    struct stat st {};
    Header header{};
    const bool readable = fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(kDisplayHeaderSize) &&
                          pread(fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) &&
                          std::memcmp(header.magic, kMagic, 8) == 0;
    const uint64_t needed = kDisplayHeaderSize + static_cast<uint64_t>(header.bytesPerRow) * header.height;
    if (!readable || header.width == 0 || header.height == 0 || header.bytesPerRow < header.width * 4ull ||
        static_cast<uint64_t>(st.st_size) < needed) {
        ::close(fd);
        if (error) *error = "the display at " + path + " is damaged";
        return nullptr;
    }
    void* map = mmap(nullptr, needed, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map == MAP_FAILED) {
        if (error) *error = "cannot map " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<Framebuffer> fb(new Framebuffer());
    fb->base_ = static_cast<uint8_t*>(map);
    fb->size_ = needed;
    fb->width_ = header.width;
    fb->height_ = header.height;
    fb->bytesPerRow_ = header.bytesPerRow;
    fb->inode_ = st.st_ino;
    return fb;
}

std::unique_ptr<Framebuffer> Framebuffer::create(const std::string& runDir, uint32_t width, uint32_t height,
                                                 std::string* error) {
    if (auto existing = open(runDir, nullptr); existing && existing->width() == width && existing->height() == height)
        return existing;  // a restarted role keeps the picture it had
    std::error_code ec;
    std::filesystem::create_directories(runDir, ec);
    Header header{};
    std::memcpy(header.magic, kMagic, 8);
    header.width = width;
    header.height = height;
    header.bytesPerRow = width * 4;
    const uint64_t size = kDisplayHeaderSize + static_cast<uint64_t>(header.bytesPerRow) * height;
    // A fresh file reads as zeros past its header: a black screen.
    AtomicFileWriter file(displayPath(runDir));
    if (!file.write(&header, sizeof header) || !file.extendTo(size) || !file.commit()) {
        if (error) *error = file.error();
        return nullptr;
    }
    auto fb = open(runDir, error);
    if (fb) fb->fill(0x000000);
    return fb;
}

void Framebuffer::fill(uint32_t rgb) {
    for (uint32_t y = 0; y < height_; ++y) {
        uint8_t* row = pixels() + static_cast<size_t>(y) * bytesPerRow_;
        for (uint32_t x = 0; x < width_; ++x) {
            row[x * 4 + 0] = rgb & 0xFF;
            row[x * 4 + 1] = (rgb >> 8) & 0xFF;
            row[x * 4 + 2] = (rgb >> 16) & 0xFF;
            row[x * 4 + 3] = 0xFF;
        }
    }
}

void Framebuffer::show(const Picture& picture) {
    fill(0x000000);
    const uint32_t w = std::min(width_, picture.width);
    const uint32_t h = std::min(height_, picture.height);
    for (uint32_t y = 0; y < h; ++y)
        std::memcpy(pixels() + static_cast<size_t>(y) * bytesPerRow_,
                    picture.pixels.data() + static_cast<size_t>(y) * picture.width * 4, static_cast<size_t>(w) * 4);
}

bool VirtualDisplay::renderDisplay(uint8_t* base, const SurfaceGeometry& geometry) {
    // Follow a framebuffer made again by a restarted input-event role.
    struct stat st {};
    const bool present = ::stat(displayPath(runDir_).c_str(), &st) == 0;
    if (!present) {
        mapped_.reset();
        return false;
    }
    if (!mapped_ || mapped_->identity() != st.st_ino) mapped_ = Framebuffer::open(runDir_, nullptr);
    if (!mapped_) return false;

    const uint32_t rowBytes = std::min<uint64_t>(static_cast<uint64_t>(mapped_->width()) * 4, geometry.bytesPerRow);
    const uint32_t rows = std::min(mapped_->height(), geometry.height);
    if (rowBytes == geometry.bytesPerRow && rowBytes == mapped_->bytesPerRow()) {
        std::memcpy(base, mapped_->pixels(), static_cast<size_t>(rowBytes) * rows);
    } else {
        for (uint32_t y = 0; y < rows; ++y) {
            uint8_t* dst = base + static_cast<size_t>(y) * geometry.bytesPerRow;
            std::memcpy(dst, mapped_->pixels() + static_cast<size_t>(y) * mapped_->bytesPerRow(), rowBytes);
            std::memset(dst + rowBytes, 0, geometry.bytesPerRow - rowBytes);
        }
    }
    if (rows < geometry.height)
        std::memset(base + static_cast<size_t>(rows) * geometry.bytesPerRow, 0,
                    static_cast<size_t>(geometry.height - rows) * geometry.bytesPerRow);
    return true;
}

std::optional<SurfaceGeometry> VirtualDisplay::openFramebufferLayer(const std::string& serviceClassName) {
    if (serviceClassName != kVirtualDisplayService) return std::nullopt;
    const auto framebuffer = Framebuffer::open(runDir_, nullptr);
    if (!framebuffer) return std::nullopt;
    SurfaceGeometry layer;
    layer.width = framebuffer->width();
    layer.height = framebuffer->height();
    layer.bytesPerElement = 4;
    std::memcpy(&layer.pixelFormat, "BGRA", 4);
    layer.bytesPerRow = layer.width * 4;
    layer.allocSize = layer.bytesPerRow * layer.height;
    return layer;
}

}  // namespace tw::device
