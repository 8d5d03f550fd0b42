#include "platform/Utf8.h"

#include <cstdint>

namespace kv {

bool isValidUtf8(std::string_view text)
{
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        size_t length;
        uint32_t codePoint;
        if ((lead & 0xe0) == 0xc0) {
            length = 2;
            codePoint = lead & 0x1f;
        } else if ((lead & 0xf0) == 0xe0) {
            length = 3;
            codePoint = lead & 0x0f;
        } else if ((lead & 0xf8) == 0xf0) {
            length = 4;
            codePoint = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size())
            return false;
        for (size_t k = 1; k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xc0) != 0x80)
                return false;
            codePoint = (codePoint << 6) | (next & 0x3f);
        }
        const bool overlong = (length == 2 && codePoint < 0x80) || (length == 3 && codePoint < 0x800) ||
                              (length == 4 && codePoint < 0x10000);
        if (overlong || codePoint > 0x10ffff || (codePoint >= 0xd800 && codePoint <= 0xdfff))
            return false;
        i += length;
    }
    return true;
}

} // namespace kv
