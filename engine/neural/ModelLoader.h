#pragma once

#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "files/File.h"
#include "files/Streams.h"
#include "neural/Finding.h"

namespace zevrant {

template <class T>
class NeuralModel;

// What reading a model file has shown.
struct LoadReport {
    // Why the model was refused: which layer, field and value, at which byte, and what is wrong with it. Set
    // whenever a load gives false or throws, and only then.
    std::optional<Finding> refusal;

    // What a loaded model was read in spite of: names that stand twice, bytes behind the end or missing
    // there.
    std::vector<Finding> findings;
};

// Reads a model file into the fields and the graph of a model; docs/model-format.md tells the format.
//
// False for an unknown or earlier magic, a version below 0x1004, a bad packing code, an unknown layer type,
// or a sample rate, window or hop that is not positive. After false or an exception the model is not to be
// used.
//
// The stream's results are not looked at while reading: past its end numbers read as zeros and texts as
// empty. Errors   std::out_of_range "map::at:  key not found" for an unknown source; std::length_error for
// negative
//          lengths and ranks, for blocks of 2 GiB or more and for tensors of more than 2^24 elements that the
//          stream does not hold; std::invalid_argument for groups of 0 bins and for a time stride of 0 where
//          the latency is divided by it.
template <class T>
bool loadModel(const std::shared_ptr<InputStream>& stream, NeuralModel<T>& model, LoadReport& report);

// The same for a file; false for one that cannot be opened.
template <class T>
bool loadModel(const File& file, NeuralModel<T>& model, LoadReport& report);

// Either of them, with false and the refusal for a file that is answered by an exception too. std::bad_alloc
// passes: it says nothing about the file.
template <class Source, class T>
bool tryLoadModel(const Source& source, NeuralModel<T>& model, LoadReport& report) {
    try {
        return loadModel(source, model, report);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return false;
    }
}

extern template bool loadModel(const std::shared_ptr<InputStream>& stream, NeuralModel<float>& model,
                               LoadReport& report);
extern template bool loadModel(const File& file, NeuralModel<float>& model, LoadReport& report);

}  // namespace zevrant
