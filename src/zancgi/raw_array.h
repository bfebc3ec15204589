/// @file
/// Private: memory for a system call to fill.
#ifndef ZANCGI_RAW_ARRAY_H
#define ZANCGI_RAW_ARRAY_H

#include <cstddef>
#include <memory>

namespace zan_cgi {

/// An uninitialized array: pages that are never written take no memory.
template <class T>
class RawArray {
 public:
  RawArray() = default;
  /// @throws std::bad_alloc
  explicit RawArray(std::size_t size)
      : data_(std::allocator<T>().allocate(size), Deleter{size}) {}

  T* data() const { return data_.get(); }
  std::size_t size() const { return data_.get_deleter().size; }

 private:
  struct Deleter {
    void operator()(T* data) const {
      std::allocator<T>().deallocate(data, size);
    }
    std::size_t size = 0;
  };

  std::unique_ptr<T, Deleter> data_;
};

}  // namespace zan_cgi

#endif
