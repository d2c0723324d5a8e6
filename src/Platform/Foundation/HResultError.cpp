#include "Platform/Foundation/HResultError.h"

namespace Quorvendale::Platform {

hstring systemMessage(HRESULT code) {
    switch (static_cast<std::uint32_t>(code)) {
#define QV_HRESULT_TEXT(name, value, text) \
    case value##u:                         \
        return hstring(text);
        QV_HRESULT_TABLE(QV_HRESULT_TEXT)
#undef QV_HRESULT_TEXT
    }
    return {};
}

hstring HResultError::message() const {
    return restrictedMessage_.empty() ? systemMessage(code_) : restrictedMessage_;
}

}  // namespace Quorvendale::Platform
