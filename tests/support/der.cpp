#include "tests/support/der.h"

#include <algorithm>

namespace test {

namespace {

Bytes withoutLeadingZeros(const Bytes& number) {
    return {std::find_if(number.begin(), number.end(), [](unsigned char byte) { return byte != 0; }), number.end()};
}

Bytes slice(const Bytes& bytes, std::size_t begin, std::size_t size) {
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin);
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

}  // namespace

Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

Bytes der(unsigned char tag, std::initializer_list<Bytes> parts) {
    const Bytes content = joined(parts);
    Bytes size;
    for (std::size_t rest = content.size(); rest != 0; rest >>= 8) {
        size.insert(size.begin(), static_cast<unsigned char>(rest));
    }
    if (content.size() > 0x7F) {
        size.insert(size.begin(), static_cast<unsigned char>(0x80 + size.size()));
    } else {
        size = {static_cast<unsigned char>(content.size())};
    }
    return joined({{tag}, size, content});
}

Bytes derInteger(const Bytes& number) {
    Bytes content = withoutLeadingZeros(number);
    if (content.empty() || content.front() > 0x7F) {
        content.insert(content.begin(), 0);
    }
    return der(0x02, {content});
}

Bytes derOfEcSignature(const Bytes& raw) {
    const std::size_t half = raw.size() / 2;
    return der(0x30, {derInteger(slice(raw, 0, half)), derInteger(slice(raw, half, half))});
}

Bytes rawEcSignature(const Bytes& encoded, std::size_t size) {
    Bytes raw;
    std::size_t at = encoded.at(1) > 0x7F ? 3 : 2;
    for (int count = 0; count < 2; ++count) {
        const std::size_t length = encoded.at(at + 1);
        const Bytes number = withoutLeadingZeros(slice(encoded, at + 2, length));
        raw = joined({raw, Bytes(size / 2 - number.size(), 0), number});
        at += 2 + length;
    }
    return raw;
}

}  // namespace test
