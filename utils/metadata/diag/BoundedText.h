#pragma once
// Formatted text appended to a fixed buffer: at most size - 1 characters and the terminating
// zero. The position advances by what the formatter reports, clamped to the buffer, so text
// that does not fit is cut at the end and every later piece sees no space.
#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace NSCam {

class BoundedText {
public:
    BoundedText(char* buffer, size_t size) : mBuffer(buffer), mSize(size) {
        if (mSize > 0) mBuffer[0] = '\0';
    }

    // Returns the formatter's report: negative when formatting failed.
    int appendf(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        if (mPos + 1 >= mSize) return 0;  // no room left: nothing is formatted
        va_list ap;
        va_start(ap, fmt);
        const int reported = std::vsnprintf(mBuffer + mPos, mSize - mPos, fmt, ap);
        va_end(ap);
        if (reported > 0) mPos += std::min(static_cast<size_t>(reported), mSize - 1 - mPos);
        return reported;
    }
    const char* c_str() const { return mBuffer; }

private:
    char* mBuffer;
    size_t mSize;
    size_t mPos = 0;
};

}  // namespace NSCam
