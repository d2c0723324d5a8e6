#pragma once

#include <string>

#include "IStorageRemap.h"
#include "InterfaceContract/LifeTimeController.h"

namespace Quorvendale::StorageClient {

// The abstract base of the storage clients: owns the IStorage table and
// turns each entry into a call of one of five methods, leaving the transport
// to the derived class. A method reports failure only by throwing; the table
// entry turns that into a result code and the thread's message.
class BasicStorageClient : public InterfaceContract::InterfacedObject {
public:
    virtual std::string read(const std::string& group, const std::string& key) = 0;
    virtual void write(const std::string& group, const std::string& key,
                       const std::string& data) = 0;
    virtual void remove(const std::string& group, const std::string& key) = 0;
    virtual std::string next(const std::string& group, const std::string& key) = 0;
    virtual bool exists() = 0;

protected:
    BasicStorageClient() noexcept { link(storageContainer_, this); }

private:
    InterfaceContract::InterfaceContainer<IStorage, BasicStorageClient> storageContainer_;
};

}  // namespace Quorvendale::StorageClient
