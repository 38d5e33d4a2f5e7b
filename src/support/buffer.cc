#include "support/buffer.h"

#include <algorithm>

namespace adcdf {

void Buffer::grow(size_t n) {
  size_t capacity = std::max({2 * capacity_, size_ + n, kMinCapacity});
  auto data = std::make_unique_for_overwrite<char[]>(capacity);
  if (size_ > 0) std::memcpy(data.get(), data_.get(), size_);
  data_ = std::move(data);
  capacity_ = capacity;
}

void Buffer::erase_front(size_t n) {
  n = std::min(n, size_);
  if (n < size_) std::memmove(data_.get(), data_.get() + n, size_ - n);
  size_ -= n;
}

}  // namespace adcdf
