#include "scriptobjects/core/SoVector.h"

#include <random>

using ScObjects::SoVector;

namespace {

TEST(SoVector, behavesLikeAModelVectorAndNeverShrinks) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<int> objects(50);
    SoVector<int> vector;
    std::vector<int*> model;
    int32_t largest = 0;
    for (int i = 0; i < 20'000; ++i) {
        int* object = &objects[random() % objects.size()];
        switch (random() % 5) {
        case 0:
        case 1:
            vector.append(object);
            model.push_back(object);
            break;
        case 2:
            vector.remove(object);
            if (const auto found = std::find(model.begin(), model.end(), object);
                found != model.end()) {
                model.erase(found);
            }
            break;
        default: {
            const auto position = static_cast<int32_t>(random() % 100) - 1;
            int* expected = nullptr;
            if (position >= 0 && position < static_cast<int32_t>(model.size())) {
                expected = model[static_cast<size_t>(position)];
                model.erase(model.begin() + position);
            }
            ASSERT_EQ(vector.removeAt(position), expected);
        }
        }
        largest = std::max(largest, static_cast<int32_t>(model.size()));
        ASSERT_EQ(vector.count(), static_cast<int32_t>(model.size()));
        ASSERT_EQ(vector.capacity(), std::max(1, (largest + 31) / 32) * 32);
        for (size_t k = 0; k < model.size(); ++k) {
            ASSERT_EQ(vector[static_cast<int32_t>(k)], model[k]);
        }
    }
}

} // namespace
