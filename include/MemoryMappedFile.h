// MemoryMappedFile: one unlinked temporary file mapped into memory, the exchange buffer of one
// inference tensor.
//
// The constructor creates the file from an mkstemp template (such as "/tmp/larod.in0-XXXXXX"),
// sizes it, unlinks it at once and maps it shared and read-write, so that only the descriptor and
// the mapping keep it alive. Each failure is logged at error level and thrown as a const char*
// literal: "Failed to create temporary file", "Failed to adjust file size", "Failed to create
// map file". A failed unlink is only logged.
//
// Ownership: the object owns the descriptor and the mapping and releases both when destroyed.
// It is neither copyable nor movable; hold it through std::unique_ptr. No lock: one user thread.
#pragma once

#include <string>

namespace Ombrel {

class MemoryMappedFile {
public:
    MemoryMappedFile(std::string filename, int filesize);
    ~MemoryMappedFile();

    MemoryMappedFile(const MemoryMappedFile&) = delete;
    MemoryMappedFile& operator=(const MemoryMappedFile&) = delete;

    void* getBuffer() const { return m_buffer; }
    int getFileDescriptor() const { return m_fileDescriptor; }
    int getFileSize() const { return m_filesize; }
    // The name mkstemp gave the file; it no longer exists in the file system.
    const std::string& getFilename() const { return m_filename; }

    // Seeks the descriptor back to offset 0; logs and returns false on failure.
    bool rewind();

private:
    std::string m_filename;
    int m_filesize;
    int m_fileDescriptor;
    void* m_buffer;
};

} // namespace Ombrel
