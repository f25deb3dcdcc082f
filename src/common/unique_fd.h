// The owner of one file descriptor.
#pragma once

// Closes a descriptor that is not negative and sets it to -1.
void COM_CloseFd(int *descriptor);

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
    UniqueFd(UniqueFd &&other) noexcept : descriptor_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { COM_CloseFd(&descriptor_); }

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    void reset(int descriptor = -1) {
        COM_CloseFd(&descriptor_);
        descriptor_ = descriptor;
    }
    int release() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor;
    }
    // Where a routine that opens a descriptor may store it.
    int *address() { return &descriptor_; }

  private:
    int descriptor_ = -1;
};
