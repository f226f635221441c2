/// @file
/// Memory that ends at an unmapped page: an access one byte past its end crashes.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "Mox/Assert.h"

/// `size` bytes that end at an unmapped page.
class GuardedBuffer {
  public:
    explicit GuardedBuffer(std::size_t size)
        : size_(size), usable_((size + pageBytes - 1) / pageBytes * pageBytes) {
        void* const memory = mmap(nullptr, usable_ + pageBytes, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Mox::require(memory != MAP_FAILED, "memory to guard");
        base_ = static_cast<char*>(memory);
        Mox::require(mprotect(base_ + usable_, pageBytes, PROT_NONE) == 0, "a page to guard it");
    }
    ~GuardedBuffer() { munmap(base_, usable_ + pageBytes); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    char* data() const { return base_ + usable_ - size_; }
    std::size_t size() const { return size_; }

  private:
    static constexpr std::size_t pageBytes = 4096;

    std::size_t size_;
    std::size_t usable_;
    char* base_;
};

/// A text that ends at an unmapped page, without a NUL.
class GuardedText {
  public:
    explicit GuardedText(std::string_view text) : buffer_(text.size()) {
        if (!text.empty()) {
            std::memcpy(buffer_.data(), text.data(), text.size());
        }
    }

    const char* begin() const { return buffer_.data(); }
    const char* end() const { return buffer_.data() + buffer_.size(); }
    std::string_view view() const { return {buffer_.data(), buffer_.size()}; }

  private:
    GuardedBuffer buffer_;
};
