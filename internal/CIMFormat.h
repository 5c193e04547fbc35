// printf-style formatting into a caller's stack buffer, with a heap string
// only for text that does not fit, and decimal numbers written by hand. Header-only and free of the
// library's other parts, so that the host platform may use it too without linking anything of the
// library.
#ifndef CIMCORE_INTERNAL_CIMFORMAT_H
#define CIMCORE_INTERNAL_CIMFORMAT_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>

namespace CIM {

// Returns the formatted text: in `stack` when it fits, else in `heap`; null
// when the format is invalid. `args` is left as it was.
inline const char* FormatV(char* stack, std::size_t size, std::string& heap, const char* format,
                           va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stack, size, format, copy);
    va_end(copy);
    if (needed < 0) {
        return nullptr;
    }
    if (std::size_t(needed) < size) {
        return stack;
    }
    heap.assign(std::size_t(needed) + 1, '\0');
    va_copy(copy, args);
    std::vsnprintf(&heap[0], heap.size(), format, copy);
    va_end(copy);
    heap.resize(std::size_t(needed));
    return heap.c_str();
}

// Writes `value` in decimal, at least `width` digits (zero-padded), and
// returns the end: for log headers and prefixes built by hand.
inline char* PutDigits(char* out, unsigned long value, int width = 1) {
    char digits[24];
    int count = 0;
    do {
        digits[count++] = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count < width) {
        digits[count++] = '0';
    }
    while (count > 0) {
        *out++ = digits[--count];
    }
    return out;
}

// The same for a signed value, as printf's "%ld" writes it.
inline char* PutLong(char* out, long value) {
    if (value < 0) {
        *out++ = '-';
        return PutDigits(out, 0ul - static_cast<unsigned long>(value));
    }
    return PutDigits(out, static_cast<unsigned long>(value));
}

}  // namespace CIM

#endif
