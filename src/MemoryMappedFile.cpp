#include "MemoryMappedFile.h"

#include "Points.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace Ombrel {

namespace {

std::string errnoText() {
    return std::strerror(errno);
}

} // namespace

MemoryMappedFile::MemoryMappedFile(std::string filename, int filesize)
    : m_filename(std::move(filename)), m_filesize(filesize), m_fileDescriptor(-1),
      m_buffer(nullptr) {
    // mkstemp rewrites the template in place, so it needs a writable, terminated copy.
    std::vector<char> nameTemplate(m_filename.begin(), m_filename.end());
    nameTemplate.push_back('\0');
    m_fileDescriptor = mkstemp(nameTemplate.data());
    if (m_fileDescriptor < 0) {
        g_stemlibLogger.error("MemoryMappedFile: failed to create temporary file " + m_filename +
                              " : " + errnoText());
        throw "Failed to create temporary file";
    }
    m_filename = nameTemplate.data();

    if (ftruncate(m_fileDescriptor, static_cast<off_t>(m_filesize)) != 0) {
        g_stemlibLogger.error("MemoryMappedFile: failed to adjust temporary file " + m_filename +
                              " to size " + std::to_string(m_filesize) + " : " + errnoText());
        // Not yet unlinked: remove it so that no file is left behind.
        unlink(m_filename.c_str());
        close(m_fileDescriptor);
        throw "Failed to adjust file size";
    }

    if (unlink(m_filename.c_str()) != 0) {
        g_stemlibLogger.error("MemoryMappedFile: failed to unlink temporary file " + m_filename +
                              " : " + errnoText());
    }

    void* buffer = mmap(nullptr, static_cast<size_t>(m_filesize), PROT_READ | PROT_WRITE,
                        MAP_SHARED, m_fileDescriptor, 0);
    if (buffer == MAP_FAILED) {
        g_stemlibLogger.error("MemoryMappedFile: failed to create map file " + m_filename + " : " +
                              errnoText());
        close(m_fileDescriptor);
        throw "Failed to create map file";
    }
    m_buffer = buffer;
}

MemoryMappedFile::~MemoryMappedFile() {
    if (munmap(m_buffer, static_cast<size_t>(m_filesize)) != 0) {
        g_stemlibLogger.error("~MemoryMappedFile: failed to unmap mapped file " + m_filename +
                              " : " + errnoText());
    }
    close(m_fileDescriptor);
}

bool MemoryMappedFile::rewind() {
    if (lseek(m_fileDescriptor, 0, SEEK_SET) < 0) {
        g_stemlibLogger.error("rewind: failed to rewind mapped file " + m_filename + " : " +
                              errnoText());
        return false;
    }
    return true;
}

} // namespace Ombrel
