#include "Platform/AppService/AppServiceFrame.h"

#include <bit>
#include <cstring>

namespace Quorvendale::Platform {
namespace {

void putUnsigned(std::string& out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
}

// Code units are little-endian on the wire, as in memory here: a string goes
// out in one copy.
void putText(std::string& out, std::u16string_view text) {
    static_assert(std::endian::native == std::endian::little);
    putUnsigned(out, text.size(), 4);
    out.append(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
}

void putValue(std::string& out, const com_ptr<IInspectable>& value) {
    const PropertyType type = typeOf(value);
    out.push_back(static_cast<char>(type));
    switch (type) {
        case PropertyType::Empty:
            break;
        case PropertyType::Int64:
            putUnsigned(out, static_cast<std::uint64_t>(unbox_value<std::int64_t>(value)), 8);
            break;
        case PropertyType::String:
            putText(out, unbox_value<hstring>(value));
            break;
    }
}

std::size_t textSize(std::size_t units) { return 4 + units * sizeof(char16_t); }

// What the body will take, so that it is allocated once.
std::size_t bodySize(const ValueSet& message) {
    std::size_t size = 1 + 8 + 4;
    for (const auto& [key, value] : message) {
        size += textSize(key.size()) + 1;
        switch (typeOf(value)) {
            case PropertyType::Empty:
                break;
            case PropertyType::Int64:
                size += 8;
                break;
            case PropertyType::String:
                size += textSize(unbox_value<hstring>(value).size());
                break;
        }
    }
    return size;
}

// Reads a body front to back, refusing to read past its end.
class Reader {
public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}

    std::uint64_t takeUnsigned(std::size_t size) {
        const std::string_view field = take(size);
        std::uint64_t value = 0;
        for (std::size_t i = size; i > 0; --i) {
            value = value << 8 | static_cast<std::uint8_t>(field[i - 1]);
        }
        return value;
    }

    hstring takeText() {
        const std::uint64_t units = takeUnsigned(4);
        if (units > left() / 2) throw MalformedFrame("string longer than the frame");
        const std::string_view bytes = take(units * sizeof(char16_t));
        std::u16string text;
        // The size is ours, not the second argument: libstdc++ 12 passes
        // the capacity it grew to there.
        text.resize_and_overwrite(units, [&](char16_t* into, std::size_t) {
            std::memcpy(into, bytes.data(), bytes.size());
            return static_cast<std::size_t>(units);
        });
        return hstring(std::move(text));
    }

    com_ptr<IInspectable> takeValue() {
        switch (static_cast<PropertyType>(takeUnsigned(1))) {
            case PropertyType::Empty:
                return nullptr;
            case PropertyType::Int64:
                return PropertyValue::CreateInt64(static_cast<std::int64_t>(takeUnsigned(8)));
            case PropertyType::String:
                return PropertyValue::CreateString(takeText());
        }
        throw MalformedFrame("unknown value type");
    }

    std::size_t left() const noexcept { return bytes_.size() - position_; }

private:
    std::string_view take(std::size_t size) {
        if (size > left()) throw MalformedFrame("frame truncated");
        const std::string_view field = bytes_.substr(position_, size);
        position_ += size;
        return field;
    }

    std::string_view bytes_;
    std::size_t position_ = 0;
};

// The smallest entry: an empty key and a null value.
constexpr std::size_t smallestEntrySize = 4 + 1;

}  // namespace

std::optional<std::string> AppServiceFrame::encode() const {
    const std::size_t size = bodySize(message);
    if (size > maximumBodySize) return std::nullopt;
    std::string out;
    out.reserve(lengthSize + size);
    putUnsigned(out, size, lengthSize);
    out.push_back(static_cast<char>(kind));
    putUnsigned(out, requestId, 8);
    putUnsigned(out, message.Size(), 4);
    for (const auto& [key, value] : message) {
        putText(out, key);
        putValue(out, value);
    }
    return out;
}

std::size_t AppServiceFrame::bodyLength(std::string_view lengthBytes) {
    const std::uint64_t length = Reader(lengthBytes).takeUnsigned(lengthSize);
    if (length > maximumBodySize) throw MalformedFrame("frame over the size limit");
    return static_cast<std::size_t>(length);
}

AppServiceFrame AppServiceFrame::decode(std::string_view body) {
    if (body.size() > maximumBodySize) throw MalformedFrame("frame over the size limit");
    Reader reader(body);
    AppServiceFrame frame;
    frame.kind = static_cast<Kind>(reader.takeUnsigned(1));
    if (frame.kind != Kind::Request && frame.kind != Kind::Response &&
        frame.kind != Kind::Refusal) {
        throw MalformedFrame("unknown frame kind");
    }
    frame.requestId = reader.takeUnsigned(8);
    const std::uint64_t count = reader.takeUnsigned(4);
    if (count > reader.left() / smallestEntrySize) throw MalformedFrame("too many entries");
    for (std::uint64_t i = 0; i < count; ++i) {
        hstring key = reader.takeText();
        if (frame.message.Insert(key, reader.takeValue())) {
            throw MalformedFrame("key repeated");
        }
    }
    if (reader.left() != 0) throw MalformedFrame("bytes after the last entry");
    return frame;
}

}  // namespace Quorvendale::Platform
