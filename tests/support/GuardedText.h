/// @file
/// Memory that ends at an unmapped page: whoever reads or writes one byte past it, crashes.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

/// `size` bytes in front of an unmapped page.
class GuardedBuffer {
  public:
    explicit GuardedBuffer(std::size_t size) : size_(size) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t usable = (size + page - 1) / page * page;
        mapped_ = usable + page;
        void* const memory =
            mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            std::abort();
        }
        base_ = static_cast<char*>(memory);
        data_ = base_ + usable - size;
        if (mprotect(base_ + usable, page, PROT_NONE) != 0) {
            std::abort();
        }
    }
    ~GuardedBuffer() { munmap(base_, mapped_); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    char* data() const { return data_; }
    std::size_t size() const { return size_; }

  private:
    std::size_t size_;
    std::size_t mapped_;
    char* base_;
    char* data_;
};

/// A text in front of an unmapped page, without a NUL.
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
