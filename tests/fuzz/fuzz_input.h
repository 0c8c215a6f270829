// Reads a fuzzer's input as a stream of small decisions. Past the end every read gives 0, so
// any input is a complete program for a target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zolt::fuzz {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}
  bool empty() const { return p_ >= end_; }
  size_t left() const { return static_cast<size_t>(end_ - p_); }
  uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
  // A value in [0, n), n <= 65536.
  int pick(int n) {
    const int v = (byte() << 8) | byte();
    return n > 0 ? v % n : 0;
  }
  bool flag() { return byte() & 1; }
  // The next `n` bytes (fewer at the end).
  const uint8_t* take(size_t n, size_t& got) {
    got = n < left() ? n : left();
    const uint8_t* at = p_;
    p_ += got;
    return at;
  }
  // Fills dst[0, n) with the next `max` bytes (fewer at the end) over and over; with none left
  // dst stays as it was.
  void repeat(uint8_t* dst, size_t n, size_t max) {
    size_t got;
    const uint8_t* src = take(max, got);
    for (size_t i = 0; got > 0 && i < n; ++i) dst[i] = src[i % got];
  }
  // Up to the next occurrence of `sep` (consumed) or the end.
  std::string until(const std::string& sep) {
    const std::string rest(reinterpret_cast<const char*>(p_), left());
    const size_t at = rest.find(sep);
    const size_t n = at == std::string::npos ? rest.size() : at;
    p_ += at == std::string::npos ? n : n + sep.size();
    return rest.substr(0, n);
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

}  // namespace zolt::fuzz
