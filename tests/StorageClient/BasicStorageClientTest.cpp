#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "InterfaceContract/OutSlot.h"
#include "StorageClient/BasicStorageClient.h"
#include "Support/ArrayOut.h"

namespace Quorvendale::StorageClient {
namespace {

using namespace std::string_literals;
using Testing::ArrayOut;

// A client that keeps entries in memory, or fails every call when told to.
class MemoryStorageClient final : public BasicStorageClient {
public:
    std::map<std::pair<std::string, std::string>, std::string> entries;
    bool failing = false;

    std::string read(const std::string& group, const std::string& key) override {
        failIfAsked();
        return entries.at({group, key});
    }
    void write(const std::string& group, const std::string& key, const std::string& data) override {
        failIfAsked();
        entries[{group, key}] = data;
    }
    void remove(const std::string& group, const std::string& key) override {
        failIfAsked();
        entries.erase({group, key});
    }
    std::string next(const std::string& group, const std::string& key) override {
        failIfAsked();
        auto it = entries.upper_bound({group, key});
        return it != entries.end() && it->first.first == group ? it->first.second : "";
    }
    bool exists() override {
        failIfAsked();
        return true;
    }

private:
    void failIfAsked() const {
        if (failing) throw std::runtime_error("store unavailable");
    }
};

class BasicStorageClientTest : public testing::Test {
protected:
    void SetUp() override {
        client_ = new MemoryStorageClient;
        InterfaceContract::handOut(*client_, IID_IStorage, &storage_);
    }
    void TearDown() override { storage_->table->release(storage_); }

    ResultCode write(const std::string& group, const std::string& key, const std::string& data) {
        return storage_->table->write(storage_, group.data(), size(group), key.data(), size(key),
                                      data.data(), size(data));
    }
    ResultCode read(const std::string& group, const std::string& key, ArrayOut& out) {
        return storage_->table->read(storage_, group.data(), size(group), key.data(), size(key),
                                     &out, &ArrayOut::allocate);
    }
    static std::uint32_t size(const std::string& text) {
        return static_cast<std::uint32_t>(text.size());
    }

    MemoryStorageClient* client_ = nullptr;
    IStorage* storage_ = nullptr;
};

// Binary bytes travel whole both ways; an empty result still calls the
// callback once, and a null buffer from it is tolerated.
TEST_F(BasicStorageClientTest, ArrayOutCopiesExactlyWhatTheMethodReturned) {
    const std::string group = "g\0h"s, key = "\0k"s, data = "a\0b\0\xff"s;
    ASSERT_EQ(write(group, key, data), QV_S_OK);
    EXPECT_EQ(client_->entries.at({group, key}), data);
    ArrayOut out;
    ASSERT_EQ(read(group, key, out), QV_S_OK);
    EXPECT_EQ(out.calls, 1);
    EXPECT_EQ(out.bytes, data);

    ArrayOut last;
    ASSERT_EQ(
        storage_->table->next(storage_, group.data(), 3, key.data(), 2, &last, &ArrayOut::allocate),
        QV_S_OK);
    EXPECT_EQ(last.calls, 1);
    EXPECT_EQ(last.bytes, "");

    ArrayOut discarded;
    discarded.answerNull = true;
    EXPECT_EQ(read(group, key, discarded), QV_S_OK);
    EXPECT_EQ(discarded.calls, 1);

    std::uint32_t word = 0;
    ASSERT_EQ(storage_->table->exists(storage_, &word), QV_S_OK);
    EXPECT_EQ(word, 0xFFFFFFFFu);
}

TEST_F(BasicStorageClientTest, FailureLeavesOutputsUntouchedAndKeepsTheText) {
    client_->failing = true;
    ArrayOut out;
    EXPECT_EQ(read("g", "k", out), QV_E_FAIL);
    EXPECT_EQ(out.calls, 0);
    EXPECT_EQ(Testing::messageOf(storage_), "store unavailable");

    std::uint32_t word = 0x12345678;
    EXPECT_EQ(storage_->table->exists(storage_, &word), QV_E_FAIL);
    EXPECT_EQ(word, 0x12345678u);

    // std::out_of_range from the store is a plain std::exception: E_FAIL.
    client_->failing = false;
    EXPECT_EQ(read("g", "missing", out), QV_E_FAIL);
    EXPECT_EQ(out.calls, 0);
}

TEST_F(BasicStorageClientTest, CallerErrorsAreRejectedBeforeTheStoreIsTouched) {
    EXPECT_EQ(storage_->table->write(storage_, nullptr, 3, "k", 1, "d", 1), QV_E_INVALIDARG);
    EXPECT_TRUE(client_->entries.empty());
    EXPECT_EQ(storage_->table->read(storage_, "g", 1, "k", 1, nullptr, nullptr), QV_E_INVALIDARG);
    EXPECT_EQ(storage_->table->exists(storage_, nullptr), QV_E_INVALIDARG);
}

}  // namespace
}  // namespace Quorvendale::StorageClient
