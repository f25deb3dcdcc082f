// The Base64 decoder, into exactly as much room as it may use, and back.
#include <cstring>
#include <vector>

#include "common/base64.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::vector<char> decoded(size / 4 * 3 + size % 4);
    const int length = COM_Base64Decode(decoded.data(), text.c_str());
    Require(length >= 0 && static_cast<size_t>(length) <= decoded.size());
    for (size_t room = 0; room < 48; room += 13) {
        std::vector<char> cut(room);
        // The text without its terminator: its size is all that ends it.
        const std::vector<char> bare(data, data + size);
        const int count = DecodeBase64(cut.data(), room, bare.data(), bare.size());
        Require(static_cast<size_t>(count) == std::min<size_t>(room, length));
        Require(count == 0 || memcmp(cut.data(), decoded.data(), count) == 0);
    }
    std::vector<char> encoded(Base64TextSize(size));
    Require(static_cast<size_t>(COM_Base64Encode(encoded.data(), data, static_cast<int>(size))) ==
            encoded.size() - 1);
    std::vector<char> back(size + 2);
    Require(COM_Base64Decode(back.data(), encoded.data()) == static_cast<int>(size));
    Require(size == 0 || memcmp(back.data(), data, size) == 0);
    return 0;
}
