// Leaks that the sanitizer build of the test program does not report. Read by LeakSanitizer at
// start-up; unused in other builds.
//
// fontconfig: resolving a font family for cairo's text (the canvases' fallback family) leaves
// fontconfig's own allocations unreleased at exit, in cairo and fontconfig alone (a program that
// only selects a family, draws a text and destroys its context shows the same).
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
