// Loading a model of 20 MB beside what no loader can avoid: reading the file, and widening half precision
// with a plain loop. Ratios in one run count; the file is in the page cache.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <utility>

#include "modelwriter/ModelWriter.h"
#include "neural/NeuralModel.h"

namespace {

using namespace zevrant::modelwriter;

constexpr int numOfMegabytes = 20;

// A chain of convolutions of 64 to 64 channels and dense layers, 1 MB each, until the file is full.
class ModelFile {
  public:
    explicit ModelFile(TensorStorage storage)
        : path(std::filesystem::temp_directory_path() / ("zevrant-load-" + std::to_string(getpid()) + "-" +
                                                         std::to_string(static_cast<int>(storage)))) {
        const int bytesPerValue = storage == TensorStorage::HalfPrecision ? 2 : 4;
        std::mt19937 random(1);
        std::uniform_real_distribution<float> weights(-0.1f, 0.1f);
        ModelWriter model("20 MB");
        model.setPacking(Packing::magnitudes(64)).setTensorStorage(storage);
        std::string last = "input";
        for (int i = 0; i < numOfMegabytes; ++i) {
            const int width = bytesPerValue == 2 ? 128 : 64;
            WeightTensor kernel{{8, 8, 64, width}, std::vector<float>(std::size_t{8} * 8 * 64 * width)};
            std::generate(kernel.values.begin(), kernel.values.end(), [&] { return weights(random); });
            std::string name = "layer " + std::to_string(i);
            model.addLayer(name, last, Dense{std::move(kernel), {}});
            last = std::move(name);
        }
        model.setOutput(last).write(path);
    }
    ~ModelFile() { std::filesystem::remove(path); }
    ModelFile(const ModelFile&) = delete;
    ModelFile& operator=(const ModelFile&) = delete;

    const std::filesystem::path path;
};

const ModelFile& getFile(bool isHalf) {
    static const ModelFile single(TensorStorage::SinglePrecision), half(TensorStorage::HalfPrecision);
    return isHalf ? half : single;
}

void loadModel(benchmark::State& state) {
    const zevrant::File file(getFile(state.range(0) != 0).path.string());
    for (auto _ : state) {
        zevrant::NeuralModel<float> model;
        if (!model.loadModel(file)) state.SkipWithError("the model does not load");
    }
    state.SetBytesProcessed(state.iterations() * (numOfMegabytes << 20));
}

void widenPlainly(const std::uint16_t* in, float* out, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t magnitude = in[i] & 0x7fffu;
        const std::uint32_t normal = (magnitude << 13) + (112u << 23);
        const auto small =
            std::bit_cast<std::uint32_t>(static_cast<float>(static_cast<int>(magnitude)) * 0x1p-24f);
        out[i] = std::bit_cast<float>((in[i] & 0x8000u) << 16 | (magnitude < 0x400u ? small : normal));
    }
}

// One block for the file and one for what it widens to, taken and given back as a load does.
void readAndWiden(benchmark::State& state) {
    const bool isHalf = state.range(0) != 0;
    const auto& path = getFile(isHalf).path;
    const std::size_t size = std::filesystem::file_size(path);
    for (auto _ : state) {
        std::FILE* file = std::fopen(path.c_str(), "rb");
        const auto content = std::make_unique_for_overwrite<std::uint16_t[]>(size / 2 + 1);
        if (std::fread(content.get(), 1, size, file) != size) state.SkipWithError("cannot read");
        std::fclose(file);
        if (isHalf) {
            const auto widened = std::make_unique_for_overwrite<float[]>(size / 2);
            widenPlainly(content.get(), widened.get(), size / 2);
            benchmark::DoNotOptimize(widened.get());
        }
        benchmark::DoNotOptimize(content.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * (numOfMegabytes << 20));
}

BENCHMARK(loadModel)->ArgName("half")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(readAndWiden)->ArgName("half")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
