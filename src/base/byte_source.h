// Where the file parsers take their bytes from: an open stream, or a block of
// memory holding what such a file would. Parsing through this one interface
// keeps reading a file and parsing its text apart, so the parsers can be
// driven from memory (tests, fuzzing) exactly as the daemon drives them.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>

class byte_source {
  public:
    explicit byte_source(FILE* f) : f_(f) {}
    byte_source(const void* data, size_t size) : data_(static_cast<const unsigned char*>(data)), size_(size) {}

    // The next byte (0..255), or EOF at the end.
    int get()
    {
        if (f_)
            return getc(f_);
        return pos_ < size_ ? data_[pos_++] : EOF;
    }

    // Up to n bytes into out; returns how many were read.
    size_t read(void* out, size_t n)
    {
        if (f_)
            return fread(out, 1, n, f_);
        size_t take = n < size_ - pos_ ? n : size_ - pos_;
        if (take > 0)
            std::memcpy(out, data_ + pos_, take);
        pos_ += take;
        return take;
    }

  private:
    FILE* f_ = nullptr;
    const unsigned char* data_ = nullptr;
    size_t size_ = 0;
    size_t pos_ = 0;
};
