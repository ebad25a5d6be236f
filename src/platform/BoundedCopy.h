// The bounded copy used for every name that goes into a storage record:
// copies at most size - 1 characters and always terminates the target; a text
// that is too long is cut without an error.  A null source gives "".
#ifndef KELD_PLATFORM_BOUNDEDCOPY_H
#define KELD_PLATFORM_BOUNDEDCOPY_H

#include <cstddef>
#include <cstring>

inline void boundedCopy(char* dst, const char* src, size_t size)
{
    if (dst == nullptr || size == 0) return;
    size_t n = 0;
    if (src != nullptr) {
        while (n + 1 < size && src[n] != '\0') ++n;
        std::memcpy(dst, src, n);
    }
    dst[n] = '\0';
}

#endif
