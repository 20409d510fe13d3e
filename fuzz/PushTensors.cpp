#include "PushTensors.h"

#include <algorithm>
#include <numeric>

#include "Choices.h"
#include "Execution.h"
#include "interface/ModelState.h"
#include "neural/MemoryStream.h"
#include "neural/ModelReport.h"

namespace zevrant::fuzz {

namespace {

constexpr std::int64_t maxElements = 1 << 14;

// Mostly what the model takes; now and then anything.
std::vector<int> chooseShape(Choices& choices, const ModelState& model) {
    const int columns = model.inputPacking == 4 || model.inputPacking == 6 ? 2 : 1;
    std::vector<int> shape{1, model.tensorFrequencies, model.numOfInputChannels * columns};
    const int way = choices.takeByte();
    if (way % 4 == 1) shape[0] = way / 4 % 5;
    if (way % 4 == 2)
        shape[static_cast<std::size_t>(choices.takeByte() % 3)] = choices.takeRaw<std::int8_t>();
    if (way % 16 == 3) shape.resize(static_cast<std::size_t>(choices.takeByte() % 5), 2);
    return shape;
}

// The price of a push.
double estimatePush(const ModelState& model, const std::vector<int>& shape) {
    if (shape.size() < 3) return 0.0;
    const ModelReport report = describeModel(model, {shape[1], shape[2]});
    return std::max(0, shape[0]) * estimateSeconds(report.step, 0.0);
}

}  // namespace

bool pushTensors(std::span<const std::uint8_t> choiceBytes, std::span<const std::uint8_t> bytes,
                 std::vector<float>& results) {
    Choices choices(choiceBytes);
    ModelState model;
    bool isLoaded = false;
    attempt([&] { isLoaded = model.loadModel(streamOver({bytes.begin(), bytes.end()})); });
    if (!isLoaded) return false;

    Budget budget;
    for (int left = 6; left > 0; --left) {
        const auto shape = chooseShape(choices, model);
        const std::int64_t count =
            std::accumulate(shape.begin(), shape.end(), std::int64_t{1},
                            [](std::int64_t product, int axis) { return product * axis; });
        if (std::abs(count) > maxElements || !budget.take(estimatePush(model, shape))) continue;
        const auto values =
            makeValues(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)), choices.takeByte());
        const bool isDone =
            attempt([&] { model.addTensor(values.data(), static_cast<int>(shape.size()), shape.data()); });
        results.push_back(isDone ? 1.0f : 0.0f);
        if (!isDone) continue;

        for (int axis : model.resultShape) results.push_back(static_cast<float>(axis));
        const int numOfResults = model.result.getNumOfElements();
        const auto numOfBefore = results.size();
        results.resize(numOfBefore + static_cast<std::size_t>(std::max(0, numOfResults)));
        if (!model.getResult(results.data() + numOfBefore)) results.resize(numOfBefore);
        if (choices.takeByte() % 8 == 0) model.reset();
    }
    return true;
}

}  // namespace zevrant::fuzz
