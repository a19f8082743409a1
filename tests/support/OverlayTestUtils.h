// Helpers of the overlay tests: ARGB32 surfaces to draw on and read back pixel by pixel, the
// test fonts, and guards for the working directory and the language.
#pragma once

#include "Localization.h"

#include <cairo.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace StemlibTest {

// The folder whose fonts/ holds the test fonts (made by scripts/make-fonts-dir.sh at build time).
inline std::string testFontsParent() {
    return STEMLIB_TEST_FONTS_PARENT;
}

// Changes the working directory for the life of the guard, and changes back.
class ScopedWorkingDirectory {
public:
    explicit ScopedWorkingDirectory(const std::filesystem::path& directory)
        : _previous(std::filesystem::current_path()) {
        std::filesystem::current_path(directory);
    }
    ~ScopedWorkingDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(_previous, ignored);
    }
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

private:
    std::filesystem::path _previous;
};

// Works in the folder of the test fonts, so that the library's "fonts/" finds them.
class InTestFontsFolder : public ScopedWorkingDirectory {
public:
    InTestFontsFolder() : ScopedWorkingDirectory(testFontsParent()) {}
};

// Sets the process-wide language, and English again at the end.
class ScopedLanguage {
public:
    explicit ScopedLanguage(const std::string& code) { Ombrel::Localization::setLanguage(code); }
    ~ScopedLanguage() { Ombrel::Localization::setLanguage("en"); }
    ScopedLanguage(const ScopedLanguage&) = delete;
    ScopedLanguage& operator=(const ScopedLanguage&) = delete;
};

// One pixel of an ARGB32 surface as stored: colour premultiplied by alpha.
struct Argb {
    int a, r, g, b;
    bool operator==(const Argb& o) const { return a == o.a && r == o.r && g == o.g && b == o.b; }
    bool operator!=(const Argb& o) const { return !(*this == o); }
};

inline std::ostream& operator<<(std::ostream& os, const Argb& p) {
    return os << "argb(" << p.a << ", " << p.r << ", " << p.g << ", " << p.b << ")";
}

// Whether every channel of p is within tolerance of expected.
inline bool near(const Argb& p, const Argb& expected, int tolerance) {
    auto close = [tolerance](int u, int v) { return u - v <= tolerance && v - u <= tolerance; };
    return close(p.a, expected.a) && close(p.r, expected.r) && close(p.g, expected.g) &&
           close(p.b, expected.b);
}

inline constexpr Argb kTransparent{0, 0, 0, 0};

// A transparent ARGB32 image surface with a context on it.
class ImageSurface {
public:
    ImageSurface(int width, int height)
        : _surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height)),
          _context(cairo_create(_surface)) {
        if (cairo_surface_status(_surface) != CAIRO_STATUS_SUCCESS) {
            throw std::runtime_error("ImageSurface: cairo_image_surface_create failed");
        }
    }
    ~ImageSurface() {
        cairo_destroy(_context);
        cairo_surface_destroy(_surface);
    }
    ImageSurface(const ImageSurface&) = delete;
    ImageSurface& operator=(const ImageSurface&) = delete;

    cairo_t* context() const { return _context; }
    cairo_surface_t* surface() const { return _surface; }
    int width() const { return cairo_image_surface_get_width(_surface); }
    int height() const { return cairo_image_surface_get_height(_surface); }

    Argb pixel(int x, int y) const {
        cairo_surface_flush(_surface);
        const unsigned char* data = cairo_image_surface_get_data(_surface);
        const int stride = cairo_image_surface_get_stride(_surface);
        const uint32_t value = *reinterpret_cast<const uint32_t*>(
            data + static_cast<std::ptrdiff_t>(y) * stride + static_cast<std::ptrdiff_t>(x) * 4);
        return Argb{static_cast<int>(value >> 24), static_cast<int>((value >> 16) & 0xff),
                    static_cast<int>((value >> 8) & 0xff), static_cast<int>(value & 0xff)};
    }

    // The number of pixels for which test holds.
    int count(const std::function<bool(const Argb&)>& test) const {
        int n = 0;
        for (int y = 0; y < height(); ++y) {
            for (int x = 0; x < width(); ++x) {
                n += test(pixel(x, y)) ? 1 : 0;
            }
        }
        return n;
    }

    // The smallest rectangle holding every pixel that is not fully transparent, as x0, y0, x1,
    // y1 (inclusive); all -1 on an empty surface.
    struct Box {
        int x0 = -1, y0 = -1, x1 = -1, y1 = -1;
    };
    Box inkBox() const {
        Box box;
        for (int y = 0; y < height(); ++y) {
            for (int x = 0; x < width(); ++x) {
                if (pixel(x, y).a == 0) {
                    continue;
                }
                if (box.x0 < 0) {
                    box = Box{x, y, x, y};
                }
                box.x0 = std::min(box.x0, x);
                box.x1 = std::max(box.x1, x);
                box.y1 = std::max(box.y1, y);
            }
        }
        return box;
    }

    // Fills the whole surface with an opaque colour, components 0 to 1.
    void paint(double r, double g, double b) {
        cairo_save(_context);
        cairo_set_source_rgb(_context, r, g, b);
        cairo_set_operator(_context, CAIRO_OPERATOR_SOURCE);
        cairo_paint(_context);
        cairo_restore(_context);
    }

private:
    cairo_surface_t* _surface;
    cairo_t* _context;
};

} // namespace StemlibTest
