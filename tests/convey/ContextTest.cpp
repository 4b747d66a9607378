// Contexts and the instances in them.
#include <random>

#include "tests/convey/EngineFixture.h"

namespace {

using ScObjects::ConveyContext;
using ContextTest = EngineTest;

TEST_F(ContextTest, contextsKeepTheirInstances) {
    ConveyContext* const context = Convey::getSharedContext();
    const uint32_t number = context->getNextSerialNumber();
    EXPECT_EQ(context->getNextSerialNumber(), number + 1);
    auto* const first = new Convey("own-1.0", nullptr, true, nullptr);
    const Convey second("own-1.0", nullptr, false, nullptr);
    EXPECT_EQ(second.getAppName(), "own_1-1.0") << "the name is taken";
    EXPECT_EQ(context->getNthInstance(-1), nullptr);
    EXPECT_EQ(context->getNthInstance(2), nullptr);
    EXPECT_EQ(Convey::get(), first);
    first->setAppName("renamed-3.0#suffix");
    EXPECT_EQ(context->getAppSpecifier(), "renamed-3.0");

    auto* const replacement = new ConveyContext("own-1.0");
    Convey::setSharedContext(context);
    EXPECT_EQ(Convey::getSharedContext(), context) << "the same again changes nothing";
    Convey::setSharedContext(replacement);
    EXPECT_EQ(replacement->getNumberOfInstances(), 2);
    EXPECT_EQ(replacement->getMainInstance(), first);
    EXPECT_EQ(first->getContext(), replacement);
    EXPECT_GT(replacement->getNextSerialNumber(), number);
    delete first;
    EXPECT_EQ(replacement->getMainInstance(), nullptr);
}

// Of several with one name the one that has had it for the longest; by places as they came.
TEST_F(ContextTest, instancesAreFoundByTheNamesThatTheyHaveNowAndByTheirPlaces) {
    struct Known {
        std::unique_ptr<Convey> instance;
        std::string name;
        int since;
    };
    std::vector<Known> known;
    ConveyContext* const context = Convey::getSharedContext();
    auto* const other = new ConveyContext("other-2.0"); // its instances must not be found here
    Convey elsewhere("own-1.0", nullptr, false, other);
    const Strings names = {"a-1.0", "b-1.0", "c-1.0", "own-1.0"};
    std::minstd_rand random(1);
    const auto below = [&](size_t count) { return static_cast<size_t>(random() % count); };
    for (int step = 0; step < 400; ++step) {
        SCOPED_TRACE(step);
        if (known.size() < 2 || (known.size() < 7 && below(3) == 0)) {
            known.push_back(
                {std::make_unique<Convey>("own-1.0", nullptr, false, nullptr), "", step});
            known.back().name = known.back().instance->getAppName().c_str();
        } else if (below(4) == 0) {
            known.erase(known.begin() + static_cast<std::ptrdiff_t>(below(known.size())));
        } else {
            Known& one = known[below(known.size())];
            one.name = names[below(names.size())];
            one.since = step;
            one.instance->setAppName(one.name.c_str());
        }
        for (const std::string& name : names) {
            const Known* first = nullptr;
            for (const Known& one : known) {
                first = one.name == name && (first == nullptr || one.since < first->since) ? &one
                                                                                           : first;
            }
            const SoString asked(name.c_str());
            EXPECT_EQ(context->findInstance(asked),
                      first == nullptr ? nullptr : first->instance.get());
            EXPECT_EQ(context->pin(asked), first == nullptr ? nullptr : first->instance->data());
        }
        EXPECT_EQ(context->getNumberOfInstances(), static_cast<int32_t>(known.size()));
        for (int asked = 0; asked < 3; ++asked) { // in any order, by their places
            const size_t place = below(known.size());
            EXPECT_EQ(context->getNthInstance(static_cast<int32_t>(place)),
                      known[place].instance.get());
        }
    }
    elsewhere.setContext(context);
    EXPECT_EQ(context->findInstance(&elsewhere), &elsewhere);
    EXPECT_EQ(other->findInstance(&elsewhere), nullptr);
    EXPECT_EQ(other->findInstance(elsewhere.getAppName()), nullptr);
    elsewhere.setAppName("elsewhere-1.0");
    EXPECT_EQ(context->findInstance("elsewhere-1.0"), &elsewhere);
    delete other;
}

} // namespace
