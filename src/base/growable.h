// A growable array of plain records whose growth can fail visibly: the
// daemon is built without exceptions, so every operation that allocates
// returns false when memory runs out and leaves the stored entries as they
// were.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

template <typename T> class growable_array {
    static_assert(std::is_trivially_copyable_v<T>, "entries are moved with memmove and realloc");

  public:
    growable_array() = default;
    growable_array(const growable_array&) = delete;
    growable_array& operator=(const growable_array&) = delete;
    growable_array(growable_array&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0))
    {
    }
    growable_array& operator=(growable_array&& other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
        return *this;
    }
    ~growable_array() { std::free(data_); }

    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    T& operator[](std::size_t i) { return data_[i]; }
    const T& operator[](std::size_t i) const { return data_[i]; }
    T& front() { return data_[0]; }
    const T& front() const { return data_[0]; }
    T& back() { return data_[size_ - 1]; }
    const T& back() const { return data_[size_ - 1]; }

    // Keeps the memory for later entries.
    void clear() { size_ = 0; }

    [[nodiscard]] bool push_back(const T& value) { return insert(end(), value); }

    // Inserts before pos (begin() .. end()).
    [[nodiscard]] bool insert(const T* pos, const T& value)
    {
        std::size_t at = static_cast<std::size_t>(pos - data_);
        if (size_ == capacity_ && !reserve(capacity_ ? capacity_ * 2 : 8))
            return false;
        std::memmove(data_ + at + 1, data_ + at, (size_ - at) * sizeof(T));
        data_[at] = value;
        ++size_;
        return true;
    }

    // Returns the position of the entry after the erased one.
    T* erase(T* pos)
    {
        std::size_t at = static_cast<std::size_t>(pos - data_);
        std::memmove(data_ + at, data_ + at + 1, (size_ - at - 1) * sizeof(T));
        --size_;
        return data_ + at;
    }

    // New entries are zero bytes; shrinking never fails.
    [[nodiscard]] bool resize(std::size_t n)
    {
        if (n > capacity_ && !reserve(n))
            return false;
        if (n > size_)
            std::memset(static_cast<void*>(data_ + size_), 0, (n - size_) * sizeof(T));
        size_ = n;
        return true;
    }

    [[nodiscard]] bool reserve(std::size_t n)
    {
        if (n <= capacity_)
            return true;
        if (n > SIZE_MAX / sizeof(T))
            return false;
        // realloc keeps the old block when it fails.
        void* grown = std::realloc(static_cast<void*>(data_), n * sizeof(T));
        if (grown == nullptr)
            return false;
        data_ = static_cast<T*>(grown);
        capacity_ = n;
        return true;
    }

  private:
    T* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};
