#include "Storage/EntryLocks.h"

namespace Quorvendale::Storage {

using Platform::MutexLock;

EntryLocks::Hold::Hold(EntryLocks& locks, const std::u16string& entry, Use use)
    : locks_(locks), entry_(locks.acquire(entry, use)), use_(use) {}

EntryLocks::Hold::~Hold() { locks_.release(entry_, use_); }

const std::u16string& EntryLocks::acquire(const std::u16string& name, Use use) {
    MutexLock lock(mutex_);
    // Nodes of an unordered_map stay where they are while others come and
    // go: the entry and its name outlive every holder.
    auto& [key, entry] = *entries_.try_emplace(name).first;
    ++entry.users;
    if (use == Use::Read) {
        while (entry.writing || entry.writersWaiting > 0) entry.changed.wait(lock.forWaiting());
        ++entry.readers;
    } else {
        ++entry.writersWaiting;
        while (entry.writing || entry.readers > 0) entry.changed.wait(lock.forWaiting());
        --entry.writersWaiting;
        entry.writing = true;
    }
    return key;
}

void EntryLocks::release(const std::u16string& name, Use use) {
    MutexLock lock(mutex_);
    const auto found = entries_.find(name);
    Entry& entry = found->second;
    if (use == Use::Read) {
        --entry.readers;
    } else {
        entry.writing = false;
    }
    if (--entry.users == 0) {
        entries_.erase(found);
        return;
    }
    entry.changed.notify_all();
}

}  // namespace Quorvendale::Storage
