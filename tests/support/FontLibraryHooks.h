// Watches the font calls that the library makes to FreeType and cairo, and makes chosen ones
// fail. The test program defines FT_Init_FreeType, FT_Done_FreeType, FT_Done_Face,
// FT_Set_Var_Design_Coordinates, cairo_ft_font_face_create_for_ft_face and
// cairo_font_face_destroy itself; the dynamic linker binds every call of these to the test
// program's, which pass it on to the real function. While a FontLibraryHooks is alive, the calls
// made from the library's own code (not cairo's or fontconfig's) are recorded, and a requested
// failure is given to the library's next call.
#pragma once

#include <string>
#include <vector>

namespace StemlibTest {

struct FontCall {
    std::string function;
    const void* object;          // the face or library, or null
    std::vector<long> arguments; // FT_Set_Var_Design_Coordinates: its coordinates
};

class FontLibraryHooks {
public:
    FontLibraryHooks();
    ~FontLibraryHooks();
    FontLibraryHooks(const FontLibraryHooks&) = delete;
    FontLibraryHooks& operator=(const FontLibraryHooks&) = delete;

    // The next FT_Init_FreeType returns an error without initialising anything.
    void failNextFreeTypeInit();
    // The next cairo_ft_font_face_create_for_ft_face returns a face in an error state.
    void failNextCairoFace();

    // The calls made since the hooks were set up, in order.
    std::vector<FontCall> calls() const;
    // Those of one function.
    std::vector<FontCall> calls(const std::string& function) const;
};

} // namespace StemlibTest
