// A growable run of bytes that a writer fills in place.
//
// room(n) makes space for at least n more bytes without initialising them and returns where they
// start; the writer fills some of them and hands the end back to commit_to(). A record is so
// formatted straight into the pending output, with one capacity check per record instead of one
// per character. Once grown, the buffer is reused without allocating (unless shrunk).
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace adcdf {

class Buffer {
 public:
  // The least a buffer allocates: one memory page.
  static constexpr size_t kMinCapacity = 4 * 1024;

  std::string_view view() const { return {data_.get(), size_}; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  char* room(size_t n) {
    if (capacity_ - size_ < n) grow(n);
    return data_.get() + size_;
  }
  void commit_to(const char* end) { size_ = static_cast<size_t>(end - data_.get()); }

  void append(std::string_view text) {
    char* at = room(text.size());
    if (!text.empty()) std::memcpy(at, text.data(), text.size());
    size_ += text.size();
  }
  void push_back(char c) { *room(1) = c, ++size_; }
  // Keeps the first `n` bytes.
  void truncate(size_t n) { size_ = n < size_ ? n : size_; }
  // Drops the first `n` bytes.
  void erase_front(size_t n);
  void clear() { size_ = 0; }
  // Empties the buffer, giving its memory back when it has grown beyond `keep` bytes (after a
  // large section, so that the next ones do not hold on to what it needed).
  void clear_and_shrink(size_t keep) {
    size_ = 0;
    if (capacity_ > keep) data_.reset(), capacity_ = 0;
  }

  friend bool operator==(const Buffer& buffer, std::string_view text) {
    return buffer.view() == text;
  }

 private:
  void grow(size_t n);

  std::unique_ptr<char[]> data_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace adcdf
