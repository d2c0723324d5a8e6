// EntryLocks: who may touch an entry of the store now. A write (or a remove)
// of an entry excludes every other request on that entry, reads of it share,
// and requests on different entries never wait for one another. So a read
// sees a value whole, the old or the new, never a file cut short by a write
// under way. A writer waiting keeps new readers back, so that a stream of
// reads cannot hold a write off for ever.
//
// An entry is named by its file's path, the key "default" already resolved.
// Two spellings of one file ("g/k" and "g/./k") are two names: only requests
// that name an entry the same way are ordered. Programs that write the files
// themselves take no part in this at all.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <string>
#include <unordered_map>

#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Storage {

class EntryLocks {
public:
    enum class Use { Read, Write };

    // Holds the entry for that use from construction to destruction,
    // waiting first for the requests it may not run beside.
    class Hold {
    public:
        Hold(EntryLocks& locks, const std::u16string& entry, Use use);
        ~Hold();
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        EntryLocks& locks_;
        const std::u16string& entry_;  // the table's own copy of the name
        const Use use_;
    };

private:
    struct Entry {
        std::size_t readers = 0;
        bool writing = false;
        std::size_t writersWaiting = 0;
        // Holders and waiters: the entry leaves the table when none is left.
        std::size_t users = 0;
        std::condition_variable changed;
    };

    const std::u16string& acquire(const std::u16string& entry, Use use);
    void release(const std::u16string& entry, Use use);

    Platform::Mutex mutex_;
    std::unordered_map<std::u16string, Entry> entries_ QV_GUARDED_BY(mutex_);
};

}  // namespace Quorvendale::Storage
