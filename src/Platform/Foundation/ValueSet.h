// ValueSet: a map from hstring to a boxed value (a PropertyValue or null),
// kept in the order of first insertion. Copies share one map, as the
// platform's reference type does. Not synchronised: one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Foundation/PropertyValue.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API ValueSet {
public:
    using Entry = std::pair<hstring, com_ptr<IInspectable>>;

    ValueSet();

    // Stores the value under the key, replacing an earlier one in place.
    // Returns true when it replaced one.
    bool Insert(const hstring& key, com_ptr<IInspectable> value);
    // The value under the key; E_BOUNDS if there is none.
    com_ptr<IInspectable> Lookup(const hstring& key) const;
    bool HasKey(const hstring& key) const;
    // The accessors are inline: a program reads a message with them without
    // the shared runtime having to export them.
    std::uint32_t Size() const noexcept { return static_cast<std::uint32_t>(map_->entries.size()); }
    std::vector<Entry>::const_iterator begin() const noexcept { return map_->entries.begin(); }
    std::vector<Entry>::const_iterator end() const noexcept { return map_->entries.end(); }

private:
    struct Map {
        std::vector<Entry> entries;
        std::map<hstring, std::size_t> index;
    };
    std::shared_ptr<Map> map_;
};

}  // namespace Quorvendale::Platform
