#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "modelwriter/LayerRecords.h"

namespace zevrant::modelwriter {

using Bytes = std::vector<std::uint8_t>;

constexpr int earliestVersion = 0x1004;
constexpr int latestVersion = 0x100a;

// How the values of tensors are stored. Half precision needs version 0x1009 and rounds to nearest, ties
// to even; what would round to 65536 or more, infinities and not-a-number are errors.
enum class TensorStorage : std::uint8_t { HalfPrecision = 0, SinglePrecision = 1 };

// How a spectrum lies in the tensors of the network.
struct Packing {
    static Packing magnitudes(int bins);                                       // 1: one row per bin
    static Packing rectifiedParts(int fineBins, int otherBins);                // 2: four rows per fine bin
    static Packing complexBins(int bins);                                      // 4: two columns per channel
    static Packing frameHistory(int fineBins, int otherBins, int frames);      // 5: loads, but does not run
    static Packing complexGroups(int fineBins, int otherBins, int groupSize);  // 6: one row per group

    int code = 1;
    int numOfBins = 0;  // all of them for packings 1 and 4, those above the fine ones for the others
    int numOfFineBins = 0;
    int numOfHistoryFrames = 1;
    int binGroupSize = 1;
};

// Builds a model file, field by field and layer by layer.
//
//   ModelWriter model("Half as loud");
//   model.setSampleRate(48000).setFrames(2048, 2048, 512).setPacking(Packing::magnitudes(1025))
//       .addLayer("gain", "input", Conv{.weights = {{1, 1, 1, 1}, {0.5f}}})
//       .setOutput("gain")
//       .write("half.model");
//
// Setters may come in any order. Layers go into the file in the order in which they are added, and a
// layer can only name sources that were added before it, or "input".
//
// Errors   std::invalid_argument, at the call that is wrong and with the layer and the field in its text,
//          for an unknown source, a name that is taken, values that do not fill their shape, a number
//          that its field cannot hold, or something that the chosen version has no field for. The
//          model is then as it was before the call. Sense is not checked: a stride of 0 can be written.
// Threads  A value like any other; no shared state.
class ModelWriter {
  public:
    explicit ModelWriter(std::string modelName, int version = latestVersion);

    ModelWriter& setInfoText(std::string text);       // kept by the engine, not interpreted
    ModelWriter& setSampleRate(double hertz);         // 48000 unless set
    ModelWriter& setChannels(int input, int output);  // 1 and 1 unless set
    ModelWriter& setProcessingMode(int mode);         // 0 (results are masks) unless set

    // The names of the output busses, the last one for the residual. "Processed" and "Residual" unless set,
    // and always in files below 0x1006. No names at all is a model without busses.
    ModelWriter& setBusses(std::vector<std::string> names);

    // Samples of the transform, the analysis window and the hop. Files below 0x1005 have no window of
    // their own.
    ModelWriter& setFrames(int fftSize, int windowSize, int hopSize);

    ModelWriter& setPacking(const Packing& both);
    ModelWriter& setPacking(const Packing& input, const Packing& output);

    // For the tensors of all layers that are added from here on; single precision unless set.
    ModelWriter& setTensorStorage(TensorStorage storage);

    ModelWriter& addLayer(const std::string& name, const std::string& source, const SingleSourceLayer& layer);
    ModelWriter& addLayer(const std::string& name, const std::vector<std::string>& sources,
                          const MergingLayer& layer);

    // A record that this library has no type for: the type code and all that stands behind it.
    ModelWriter& addRawLayer(const std::string& name, int typeCode, const Bytes& payload);

    // The layer whose result leaves the model; needed before a file can be made.
    ModelWriter& setOutput(const std::string& source);

    // The whole file. Throws std::logic_error as long as no output is set.
    Bytes toBytes() const;

    // Writes the file beside its place and moves it there when it is complete, so that a failure leaves
    // what was there before. Throws std::filesystem::filesystem_error, and what toBytes() throws.
    void write(const std::filesystem::path& path) const;

  private:
    void addRecord(const std::string& name, int typeCode, const Bytes& payload);
    void requireSource(const std::string& name, const std::string& user) const;

    int version;
    std::string modelName;
    std::string infoText;
    double sampleRate = 48000.0;
    int numOfInputChannels = 1;
    int numOfOutputChannels = 1;
    int processingMode = 0;
    std::vector<std::string> busNames{"Processed", "Residual"};
    int fftSize = 2048;
    int windowSize = 2048;
    int hopSize = 512;
    Packing inputPacking;
    Packing outputPacking;
    TensorStorage tensorStorage = TensorStorage::SinglePrecision;
    std::set<std::string> layerNames{"input"};
    int numOfLayers = 0;
    Bytes layerRecords;
    std::string outputSource;
};

// What stands behind the type code of one layer's record: the name of its source or sources, then its own
// fields. For readers that take a single layer, and for tests of them.
Bytes encodeLayer(const std::string& source, const SingleSourceLayer& layer, int version = latestVersion,
                  TensorStorage storage = TensorStorage::SinglePrecision);
Bytes encodeLayer(const std::vector<std::string>& sources, const MergingLayer& layer,
                  int version = latestVersion);

// One tensor record.
Bytes encodeTensor(const WeightTensor& tensor, int version = latestVersion,
                   TensorStorage storage = TensorStorage::SinglePrecision);

// The 16 bits of a value in half precision. Throws std::invalid_argument as told at TensorStorage.
std::uint16_t toHalfPrecision(float value);

}  // namespace zevrant::modelwriter
