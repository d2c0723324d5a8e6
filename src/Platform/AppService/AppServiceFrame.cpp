#include "Platform/AppService/AppServiceFrame.h"

namespace Quorvendale::Platform {
namespace {

void putUnsigned(std::string& out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
}

void putText(std::string& out, const hstring& text) {
    putUnsigned(out, text.size(), 4);
    for (char16_t unit : std::u16string_view(text)) putUnsigned(out, unit, 2);
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
        std::u16string text(units, u'\0');
        for (char16_t& unit : text) unit = static_cast<char16_t>(takeUnsigned(2));
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
    std::string out(lengthSize, '\0');
    out.push_back(static_cast<char>(kind));
    putUnsigned(out, requestId, 8);
    putUnsigned(out, message.Size(), 4);
    for (const auto& [key, value] : message) {
        putText(out, key);
        putValue(out, value);
        if (out.size() - lengthSize > maximumBodySize) return std::nullopt;
    }
    std::string length;
    putUnsigned(length, out.size() - lengthSize, lengthSize);
    out.replace(0, lengthSize, length);
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
