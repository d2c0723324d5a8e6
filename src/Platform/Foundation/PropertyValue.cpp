#include "Platform/Foundation/PropertyValue.h"

namespace Quorvendale::Platform {
namespace {

template <class T, PropertyType type>
class Boxed final : public IPropertyValue {
public:
    explicit Boxed(T value) : value_(std::move(value)) {}
    hstring GetRuntimeClassName() const override { return u"Windows.Foundation.IReference`1"; }
    PropertyType Type() const override { return type; }
    const T& value() const noexcept { return value_; }

private:
    T value_;
};

using BoxedString = Boxed<hstring, PropertyType::String>;
using BoxedInt64 = Boxed<std::int64_t, PropertyType::Int64>;

template <class Box>
const auto& unboxed(const com_ptr<IInspectable>& value) {
    auto* box = dynamic_cast<const Box*>(value.get());
    if (box == nullptr) throw HResultError(E_NOINTERFACE);
    return box->value();
}

}  // namespace

com_ptr<IInspectable> PropertyValue::CreateString(hstring value) {
    return make<BoxedString>(std::move(value));
}

com_ptr<IInspectable> PropertyValue::CreateInt64(std::int64_t value) {
    return make<BoxedInt64>(value);
}

PropertyType typeOf(const com_ptr<IInspectable>& value) noexcept {
    auto* property = dynamic_cast<const IPropertyValue*>(value.get());
    return property == nullptr ? PropertyType::Empty : property->Type();
}

template <>
hstring unbox_value<hstring>(const com_ptr<IInspectable>& value) {
    return unboxed<BoxedString>(value);
}

template <>
std::int64_t unbox_value<std::int64_t>(const com_ptr<IInspectable>& value) {
    return unboxed<BoxedInt64>(value);
}

}  // namespace Quorvendale::Platform
