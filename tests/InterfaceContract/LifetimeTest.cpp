#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "InterfaceContract/OutSlot.h"

namespace Quorvendale::InterfaceContract {
namespace {

// An object that reports its end, so tests can see it die exactly once.
struct Witness {
    std::atomic<int> released{0};
    std::atomic<int> destroyed{0};
};

class Probe final : public InterfacedObject {
public:
    explicit Probe(Witness& witness) : witness_(witness) {}
    ~Probe() override { ++witness_.destroyed; }
    void onInterfacesReleased(int) override { ++witness_.released; }

private:
    Witness& witness_;
};

IInterface* makeProbe(Witness& witness) {
    IInterface* object = nullptr;
    handOut(*new Probe(witness), IID_IInterface, &object);
    return object;
}

TEST(Lifetime, CountsRiseAndFallAndTheLastReleaseDestroysOnce) {
    Witness witness;
    IInterface* object = makeProbe(witness);

    EXPECT_EQ(object->table->addRef(object), 2u);
    EXPECT_EQ(object->table->addRef(object), 3u);
    EXPECT_EQ(object->table->release(object), 2u);
    EXPECT_EQ(object->table->release(object), 1u);
    EXPECT_EQ(witness.destroyed, 0);

    EXPECT_EQ(object->table->release(object), 0u);
    EXPECT_EQ(witness.released, 1);
    EXPECT_EQ(witness.destroyed, 1);
}

TEST(Lifetime, ConcurrentAddRefAndReleaseDestroyExactlyOnce) {
    constexpr int threads = 4;
    constexpr int rounds = 1000;
    for (int trial = 0; trial < 20; ++trial) {
        Witness witness;
        IInterface* object = makeProbe(witness);
        // Every thread holds a reference of its own and drops it last, so
        // whichever thread finishes last performs the destruction.
        for (int i = 1; i < threads; ++i) object->table->addRef(object);
        std::vector<std::thread> workers;
        for (int i = 0; i < threads; ++i) {
            workers.emplace_back([object] {
                for (int round = 0; round < rounds; ++round) {
                    object->table->addRef(object);
                    object->table->release(object);
                }
                object->table->release(object);
            });
        }
        for (auto& worker : workers) worker.join();
        EXPECT_EQ(witness.destroyed, 1);
        EXPECT_EQ(witness.released, 1);
    }
}

}  // namespace
}  // namespace Quorvendale::InterfaceContract
