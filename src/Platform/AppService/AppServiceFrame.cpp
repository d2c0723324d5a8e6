#include "Platform/AppService/AppServiceFrame.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Quorvendale::Platform {
namespace {

static_assert(std::endian::native == std::endian::little,
              "code units are little-endian on the wire, as in memory here");

std::size_t textBytes(const hstring& text) { return text.size() * sizeof(char16_t); }
bool isLarge(const hstring& text) { return textBytes(text) >= AppServiceFrame::largeTextSize; }

// What a body takes: all of it, and the part copied into the frame's own
// pieces (without its large strings), so that that part is allocated once.
struct BodySize {
    std::size_t whole = 1 + 8 + 4;
    std::size_t copied = 1 + 8 + 4;

    void addText(const hstring& text) {
        whole += 4 + textBytes(text);
        copied += 4 + (isLarge(text) ? 0 : textBytes(text));
    }
};

BodySize bodySize(const ValueSet& message) {
    BodySize size;
    for (const auto& [key, value] : message) {
        size.addText(key);
        size.whole += 1;
        size.copied += 1;
        switch (typeOf(value)) {
            case PropertyType::Empty:
                break;
            case PropertyType::Int64:
                size.whole += 8;
                size.copied += 8;
                break;
            case PropertyType::String:
                size.addText(unbox_value<hstring>(value));
                break;
        }
    }
    return size;
}

}  // namespace

// Builds an EncodedFrame front to back: bytes go to the piece under way, a
// large string becomes a piece of its own.
class FrameWriter {
public:
    FrameWriter(std::size_t size, std::size_t copied) {
        frame_.size_ = size;
        current_.reserve(copied);
    }

    void putUnsigned(std::uint64_t value, std::size_t bytes) {
        for (std::size_t i = 0; i < bytes; ++i) {
            current_.push_back(static_cast<char>(value >> (8 * i)));
        }
    }

    void putText(const hstring& text) {
        putUnsigned(text.size(), 4);
        if (!isLarge(text)) {
            current_.append(reinterpret_cast<const char*>(text.data()), textBytes(text));
            return;
        }
        endPiece();
        frame_.pieces_.push_back({{}, text, offset_ + textBytes(text)});
        offset_ += textBytes(text);
    }

    void putValue(const com_ptr<IInspectable>& value) {
        const PropertyType type = typeOf(value);
        current_.push_back(static_cast<char>(type));
        switch (type) {
            case PropertyType::Empty:
                break;
            case PropertyType::Int64:
                putUnsigned(static_cast<std::uint64_t>(unbox_value<std::int64_t>(value)), 8);
                break;
            case PropertyType::String:
                putText(unbox_value<hstring>(value));
                break;
        }
    }

    EncodedFrame finish() {
        endPiece();
        return std::move(frame_);
    }

private:
    void endPiece() {
        if (current_.empty()) return;
        offset_ += current_.size();
        frame_.pieces_.push_back({std::move(current_), {}, offset_});
        current_ = std::string();
    }

    EncodedFrame frame_;
    std::string current_;
    std::size_t offset_ = 0;  // of current_ in the frame
};

namespace {

// Reads a body front to back, refusing to read past its end.
class Reader {
public:
    // `read`, if any, hears how far a large string has been copied.
    explicit Reader(std::string_view bytes, const std::function<void(std::size_t)>* read = nullptr)
        : bytes_(bytes), read_(read) {}

    std::uint64_t takeUnsigned(std::size_t size) {
        const std::string_view field = take(size);
        std::uint64_t value = 0;
        for (std::size_t i = size; i > 0; --i) {
            value = value << 8 | static_cast<std::uint8_t>(field[i - 1]);
        }
        return value;
    }

    // A large string is copied in steps, each followed by a word to the
    // caller that the bytes before are done with.
    hstring takeText() {
        const std::uint64_t units = takeUnsigned(4);
        if (units > left() / 2) throw MalformedFrame("string longer than the frame");
        const std::size_t start = position_;
        const std::string_view bytes = take(units * sizeof(char16_t));
        std::u16string text;
        // The size is ours, not the second argument: libstdc++ 12 passes
        // the capacity it grew to there.
        text.resize_and_overwrite(units, [&](char16_t* into, std::size_t) {
            char* const out = reinterpret_cast<char*>(into);
            for (std::size_t done = 0; done < bytes.size();) {
                const std::size_t step =
                    std::min(bytes.size() - done, AppServiceFrame::largeTextSize);
                std::memcpy(out + done, bytes.data() + done, step);
                done += step;
                if (read_ != nullptr && step == AppServiceFrame::largeTextSize) {
                    (*read_)(start + done);
                }
            }
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
    const std::function<void(std::size_t)>* read_;
    std::size_t position_ = 0;
};

// The smallest entry: an empty key and a null value.
constexpr std::size_t smallestEntrySize = 4 + 1;

}  // namespace

std::string_view EncodedFrame::Piece::view() const noexcept {
    if (text.empty()) return bytes;
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)};
}

std::string_view EncodedFrame::piece(std::size_t at) const noexcept {
    std::size_t start = 0;
    for (const Piece& piece : pieces_) {
        if (at < piece.end) return piece.view().substr(at - start);
        start = piece.end;
    }
    return {};
}

std::string EncodedFrame::joined() const {
    std::string out;
    out.reserve(size_);
    for (const Piece& piece : pieces_) out.append(piece.view());
    return out;
}

std::optional<EncodedFrame> AppServiceFrame::encode() const {
    const BodySize size = bodySize(message);
    if (size.whole > maximumBodySize) return std::nullopt;
    FrameWriter out(lengthSize + size.whole, lengthSize + size.copied);
    out.putUnsigned(size.whole, lengthSize);
    out.putUnsigned(static_cast<std::uint8_t>(kind), 1);
    out.putUnsigned(requestId, 8);
    out.putUnsigned(message.Size(), 4);
    for (const auto& [key, value] : message) {
        out.putText(key);
        out.putValue(value);
    }
    return out.finish();
}

std::size_t AppServiceFrame::bodyLength(std::string_view lengthBytes) {
    const std::uint64_t length = Reader(lengthBytes).takeUnsigned(lengthSize);
    if (length > maximumBodySize) throw MalformedFrame("frame over the size limit");
    return static_cast<std::size_t>(length);
}

AppServiceFrame AppServiceFrame::decode(std::string_view body,
                                        const std::function<void(std::size_t)>& read) {
    if (body.size() > maximumBodySize) throw MalformedFrame("frame over the size limit");
    Reader reader(body, read ? &read : nullptr);
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
