// PropertyValue: boxing of plain values into runtime objects, and
// unbox_value to take them out again. A null IInspectable stands for the
// empty value (PropertyType::Empty). The numbers of PropertyType are the
// platform's and travel as type tags in app-service messages.
#pragma once

#include <cstdint>

#include "Platform/Foundation/com_ptr.h"

namespace Quorvendale::Platform {

enum class PropertyType : std::uint8_t { Empty = 0, Int64 = 6, String = 12 };

// What a boxed value answers: its type.
class QV_PLATFORM_API IPropertyValue : public virtual IInspectable {
public:
    virtual PropertyType Type() const = 0;
};

class QV_PLATFORM_API PropertyValue {
public:
    static com_ptr<IInspectable> CreateString(hstring value);
    static com_ptr<IInspectable> CreateInt64(std::int64_t value);
};

// The type of a value as stored in a ValueSet: Empty for null.
QV_PLATFORM_API PropertyType typeOf(const com_ptr<IInspectable>& value) noexcept;

// The boxed value. A null or a value of another type raises E_NOINTERFACE,
// the runtime's invalid-cast error.
template <class T>
T unbox_value(const com_ptr<IInspectable>& value);
template <>
QV_PLATFORM_API hstring unbox_value<hstring>(const com_ptr<IInspectable>& value);
template <>
QV_PLATFORM_API std::int64_t unbox_value<std::int64_t>(const com_ptr<IInspectable>& value);

}  // namespace Quorvendale::Platform
