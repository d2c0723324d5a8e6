#include "Json.h"

#include <cstdio>
#include <set>

#include "InputChecks.h"

namespace Quorvendale::Qvstore {

std::string jsonString(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                quoted += "\\\"";
                break;
            case '\\':
                quoted += "\\\\";
                break;
            case '\n':
                quoted += "\\n";
                break;
            case '\r':
                quoted += "\\r";
                break;
            case '\t':
                quoted += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    quoted += escaped;
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + '"';
}

namespace {

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    Entries object() {
        Entries entries;
        std::set<std::string> keys;
        expect('{');
        if (!take('}')) {
            do {
                std::string key = string();
                if (!keys.insert(key).second) fail("the key " + jsonString(key) + " comes twice");
                expect(':');
                if (peek() != '"') fail("the value of " + jsonString(key) + " is not a string");
                entries.emplace_back(std::move(key), string());
            } while (take(','));
            expect('}');
        }
        skipSpace();
        if (at_ != text_.size()) fail("text after the object");
        return entries;
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw Refusal("the JSON input at byte " + std::to_string(at_) + ": " + what);
    }

    void skipSpace() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' ||
                                      text_[at_] == '\n' || text_[at_] == '\r')) {
            ++at_;
        }
    }

    char peek() {
        skipSpace();
        return at_ < text_.size() ? text_[at_] : '\0';
    }

    bool take(char c) {
        if (peek() != c) return false;
        ++at_;
        return true;
    }

    void expect(char c) {
        if (!take(c)) fail(std::string("expected '") + c + "'");
    }

    unsigned hex4() {
        unsigned unit = 0;
        for (int i = 0; i < 4; ++i, ++at_) {
            const char c = at_ < text_.size() ? text_[at_] : '\0';
            unit <<= 4;
            if (c >= '0' && c <= '9')
                unit |= c - '0';
            else if (c >= 'a' && c <= 'f')
                unit |= c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                unit |= c - 'A' + 10;
            else
                fail("a \\u escape needs four hexadecimal digits");
        }
        return unit;
    }

    static void appendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | code >> 6);
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | code >> 12);
            out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | code >> 18);
            out += static_cast<char>(0x80 | (code >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    // The string's bytes; its UTF-8 is checked later, with the entry.
    std::string string() {
        expect('"');
        std::string out;
        for (;;) {
            if (at_ == text_.size()) fail("the string does not end");
            const char c = text_[at_++];
            if (c == '"') return out;
            if (static_cast<unsigned char>(c) < 0x20) {
                --at_;
                fail("a control character must be escaped in a string");
            }
            if (c != '\\') {
                out += c;
                continue;
            }
            const char escape = at_ < text_.size() ? text_[at_++] : '\0';
            switch (escape) {
                case '"':
                case '\\':
                case '/':
                    out += escape;
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    unsigned code = hex4();
                    if (code >= 0xD800 && code <= 0xDBFF && text_.substr(at_, 2) == "\\u") {
                        at_ += 2;
                        const unsigned low = hex4();
                        if (low < 0xDC00 || low > 0xDFFF) fail("a lone surrogate in a \\u escape");
                        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                    } else if (code >= 0xD800 && code <= 0xDFFF) {
                        fail("a lone surrogate in a \\u escape");
                    }
                    appendUtf8(out, code);
                    break;
                }
                default:
                    --at_;
                    fail("an unknown escape in a string");
            }
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

}  // namespace

Entries parseJsonObject(std::string_view text) { return Parser(text).object(); }

}  // namespace Quorvendale::Qvstore
