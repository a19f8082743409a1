// Runs a harness over files and folders of inputs, once each, without the fuzzing engine: the
// seed and regression corpora then run in every build of the test suite, with any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void runFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path argument(argv[i]);
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argument)) {
            for (const auto& entry : std::filesystem::directory_iterator(argument)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
        } else if (std::filesystem::is_regular_file(argument)) {
            files.push_back(argument);
        } else {
            std::fprintf(stderr, "no such input: %s\n", argv[i]);
            return 1;
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            runFile(file);
            ++count;
        }
    }
    std::printf("%zu inputs replayed without a fault\n", count);
    return count > 0 ? 0 : 1;
}
