// Test helpers around the host inference service: forged model paths, anonymous files for
// tensors, requested failures, and the service's call log. A chosen host camera comes from
// HostCameraScope.h.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#if __has_include(<stemlib-host-larod.h>)
#include "HostCameraScope.h"

#include <stemlib-host-larod.h>
#include <stemlib-host.h>
#define STEMLIB_TEST_HOST_LAROD 1
#endif

namespace StemlibTest {

// A model that the build forged (see tools/modelforge/ForgedModels.h).
inline std::string forgedModel(const std::string& name) {
    return std::string(STEMLIB_MODEL_DIR) + "/" + name + ".tflite";
}

// An open descriptor, closed at the end of the scope.
class ScopedFd {
public:
    explicit ScopedFd(int fd = -1) : _fd(fd) {}
    ~ScopedFd() {
        if (_fd >= 0) {
            close(_fd);
        }
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return _fd; }

private:
    int _fd;
};

// An anonymous in-memory file holding bytes, its position at 0.
inline int anonymousFile(const std::vector<std::uint8_t>& bytes) {
    const int fd = memfd_create("stemlib-test", 0);
    if (fd >= 0 && !bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        EXPECT_EQ(written, static_cast<ssize_t>(bytes.size()));
        lseek(fd, 0, SEEK_SET);
    }
    return fd;
}

inline std::vector<std::uint8_t> fileBytes(int fd) {
    const off_t size = lseek(fd, 0, SEEK_END);
    std::vector<std::uint8_t> bytes(size > 0 ? static_cast<std::size_t>(size) : 0);
    if (!bytes.empty()) {
        EXPECT_EQ(pread(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    return bytes;
}

#ifdef STEMLIB_TEST_HOST_LAROD

// Clears every requested failure at the end of the scope.
struct FailureScope {
    FailureScope() = default;
    ~FailureScope() { stemlib_host_clear_failures(); }
    FailureScope(const FailureScope&) = delete;
    FailureScope& operator=(const FailureScope&) = delete;
};

// The service's call log, one entry an element.
inline std::vector<std::string> larodCallLog() {
    char* text = stemlib_host_larod_log();
    std::vector<std::string> entries;
    std::string entry;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\n') {
            entries.push_back(entry);
            entry.clear();
        } else {
            entry += *p;
        }
    }
    std::free(text);
    return entries;
}

// The entries of the log that begin with one of the given call names, in order.
inline std::vector<std::string> larodCallLog(const std::vector<std::string>& calls) {
    std::vector<std::string> selected;
    for (const std::string& entry : larodCallLog()) {
        for (const std::string& call : calls) {
            if (entry.compare(0, call.size(), call) == 0 &&
                (entry.size() == call.size() || entry[call.size()] == ' ')) {
                selected.push_back(entry);
                break;
            }
        }
    }
    return selected;
}

#endif

} // namespace StemlibTest
