#include "Platform/Foundation/ValueSet.h"

namespace Quorvendale::Platform {

ValueSet::ValueSet() : map_(std::make_shared<Map>()) {}

bool ValueSet::Insert(const hstring& key, com_ptr<IInspectable> value) {
    if (auto slot = map_->index.find(key); slot != map_->index.end()) {
        map_->entries[slot->second].second = std::move(value);
        return true;
    }
    map_->entries.emplace_back(key, std::move(value));
    try {
        map_->index.emplace(key, map_->entries.size() - 1);
    } catch (...) {
        map_->entries.pop_back();
        throw;
    }
    return false;
}

com_ptr<IInspectable> ValueSet::Lookup(const hstring& key) const {
    auto slot = map_->index.find(key);
    if (slot == map_->index.end()) throw HResultError(E_BOUNDS);
    return map_->entries[slot->second].second;
}

bool ValueSet::HasKey(const hstring& key) const { return map_->index.contains(key); }

}  // namespace Quorvendale::Platform
