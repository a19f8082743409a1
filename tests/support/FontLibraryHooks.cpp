#include "FontLibraryHooks.h"

#include <cairo-ft.h>
#include <cairo.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_MULTIPLE_MASTERS_H

#include "CairoFontManager.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace StemlibTest {
namespace {

std::mutex g_mutex;
bool g_recording = false;
bool g_failFreeTypeInit = false;
bool g_failCairoFace = false;
std::vector<FontCall> g_calls;

// Whether code at this address belongs to the module of the library (libstemlib, or the test
// program itself in a static build), as opposed to cairo or fontconfig calling FreeType.
bool inLibrary(const void* address) {
    static const void* libraryBase = [] {
        Dl_info info{};
        ::dladdr(reinterpret_cast<void*>(&Ombrel::CairoFontManager::getInstance), &info);
        return info.dli_fbase;
    }();
    Dl_info info{};
    return ::dladdr(address, &info) != 0 && info.dli_fbase == libraryBase;
}

void record(const void* caller, const char* function, const void* object,
            std::vector<long> arguments = {}) {
    if (!inLibrary(caller)) {
        return;
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_recording) {
        g_calls.push_back(FontCall{function, object, std::move(arguments)});
    }
}

// Takes a due failure, clearing it.
bool takeFailure(bool& flag) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const bool due = flag;
    flag = false;
    return due;
}

// The real function of that name, found behind the test program's own definition.
template <typename Function>
Function real(const char* name) {
    void* symbol = ::dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "FontLibraryHooks: %s not found\n", name);
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

} // namespace

FontLibraryHooks::FontLibraryHooks() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
    g_failFreeTypeInit = false;
    g_failCairoFace = false;
    g_recording = true;
}

FontLibraryHooks::~FontLibraryHooks() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_recording = false;
    g_failFreeTypeInit = false;
    g_failCairoFace = false;
}

void FontLibraryHooks::failNextFreeTypeInit() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_failFreeTypeInit = true;
}

void FontLibraryHooks::failNextCairoFace() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_failCairoFace = true;
}

std::vector<FontCall> FontLibraryHooks::calls() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls;
}

std::vector<FontCall> FontLibraryHooks::calls(const std::string& function) const {
    std::vector<FontCall> selected;
    for (const FontCall& call : calls()) {
        if (call.function == function) {
            selected.push_back(call);
        }
    }
    return selected;
}

} // namespace StemlibTest

using namespace StemlibTest;

extern "C" FT_Error FT_Init_FreeType(FT_Library* library) {
    static const auto next = real<FT_Error (*)(FT_Library*)>("FT_Init_FreeType");
    if (inLibrary(__builtin_return_address(0)) && takeFailure(g_failFreeTypeInit)) {
        record(__builtin_return_address(0), "FT_Init_FreeType", nullptr);
        return FT_Err_Out_Of_Memory;
    }
    const FT_Error error = next(library);
    record(__builtin_return_address(0), "FT_Init_FreeType", error == 0 ? *library : nullptr);
    return error;
}

extern "C" FT_Error FT_Done_FreeType(FT_Library library) {
    static const auto next = real<FT_Error (*)(FT_Library)>("FT_Done_FreeType");
    record(__builtin_return_address(0), "FT_Done_FreeType", library);
    return next(library);
}

extern "C" FT_Error FT_Done_Face(FT_Face face) {
    static const auto next = real<FT_Error (*)(FT_Face)>("FT_Done_Face");
    record(__builtin_return_address(0), "FT_Done_Face", face);
    return next(face);
}

extern "C" FT_Error FT_Set_Var_Design_Coordinates(FT_Face face, FT_UInt num_coords,
                                                  FT_Fixed* coords) {
    static const auto next =
        real<FT_Error (*)(FT_Face, FT_UInt, FT_Fixed*)>("FT_Set_Var_Design_Coordinates");
    record(__builtin_return_address(0), "FT_Set_Var_Design_Coordinates", face,
           std::vector<long>(coords, coords + (coords != nullptr ? num_coords : 0)));
    return next(face, num_coords, coords);
}

extern "C" cairo_font_face_t* cairo_ft_font_face_create_for_ft_face(FT_Face face, int load_flags) {
    static const auto next =
        real<cairo_font_face_t* (*)(FT_Face, int)>("cairo_ft_font_face_create_for_ft_face");
    if (inLibrary(__builtin_return_address(0)) && takeFailure(g_failCairoFace)) {
        // cairo's own inert face in an error state, as it hands out when it runs out of memory.
        cairo_font_face_t* failed =
            cairo_toy_font_face_create(nullptr, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
        record(__builtin_return_address(0), "cairo_ft_font_face_create_for_ft_face", failed);
        return failed;
    }
    cairo_font_face_t* created = next(face, load_flags);
    record(__builtin_return_address(0), "cairo_ft_font_face_create_for_ft_face", created);
    return created;
}

extern "C" void cairo_font_face_destroy(cairo_font_face_t* font_face) {
    static const auto next = real<void (*)(cairo_font_face_t*)>("cairo_font_face_destroy");
    record(__builtin_return_address(0), "cairo_font_face_destroy", font_face);
    next(font_face);
}
