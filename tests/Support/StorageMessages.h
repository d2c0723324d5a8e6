// Storage service messages as a client sends them, and the service's reply
// as a (status, response) pair, for tests that talk to the service over an
// app-service connection.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/Text/TextConversion.h"

namespace Quorvendale::Testing {

using Reply = std::pair<std::string, std::string>;  // status, response

inline const Reply success{"success", ""};
inline const Reply unknownException{"failed", "Unknown exception"};

// A message of string entries, each given in UTF-8.
inline Platform::ValueSet request(
    std::initializer_list<std::pair<const char16_t*, std::string>> entries) {
    Platform::ValueSet message;
    for (const auto& [key, value] : entries) {
        message.Insert(key, Platform::PropertyValue::CreateString(
                                Platform::hstring(Platform::utf8ToUtf16(value))));
    }
    return message;
}

// The reply's status and response. An answer that is not a well-formed
// reply (exactly "response", then "status") gives a status that says so,
// which no comparison with a real reply can mistake for one.
inline Reply replyOf(const Platform::AppServiceResponse& response) {
    using namespace Platform;
    if (response.Status() != AppServiceResponseStatus::Success) {
        return {"<no answer: " + std::to_string(static_cast<int>(response.Status())) + ">", ""};
    }
    const ValueSet reply = response.Message();
    if (reply.Size() != 2u || reply.begin()->first != hstring(u"response")) {
        return {"<malformed reply>", ""};
    }
    return {utf16ToUtf8(unbox_value<hstring>(reply.Lookup(u"status"))),
            utf16ToUtf8(unbox_value<hstring>(reply.Lookup(u"response")))};
}

}  // namespace Quorvendale::Testing
