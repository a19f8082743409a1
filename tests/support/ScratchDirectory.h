// A fresh directory under the system's temporary directory, removed with everything in it when
// the guard goes out of scope. For tests that write files.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace StemlibTest {

class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "stemlib-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("ScratchDirectory: mkdtemp failed");
        }
        _path = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return _path; }
    // The path of a file named name inside the directory.
    std::string file(const std::string& name) const { return (_path / name).string(); }

private:
    std::filesystem::path _path;
};

// The whole content of a file; empty if it cannot be read.
inline std::string readWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline void writeWholeFile(const std::string& path, const std::string& contents) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents;
}

} // namespace StemlibTest
