// The shapes of LayersBenchmark in the libraries that we are measured beside, on one thread, over slices that
// lie ready in the layout that suits them and with weights put in order ahead. A shape can be asked for in
// several forms, and which of them is fast depends on the library; each function returns all that the library
// takes, each a run over its own buffers, and nothing where the library was not found at build time.
//
// Not counted against a peer are the copies into and out of its layout and the additions to what earlier
// slices left, which our layers do.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kernels/Shapes.h"

struct PeerForm {
    std::string name;
    std::function<void()> run;
};
using PeerForms = std::vector<PeerForm>;

namespace onednn {

// groups is 1, or the number of channels of a channel-wise convolution.
PeerForms makeConvolution(const zevrant::kernels::Convolution& shape, int groups);
PeerForms makeTransposed(const zevrant::kernels::TransposedConvolution& shape);
PeerForms makeDense(int numOfFrequencies, int numOfChannels);
PeerForms makeElu(int count);
PeerForms makeSigmoid(int count);

}  // namespace onednn

namespace xnnpack {

PeerForms makeConvolution(const zevrant::kernels::Convolution& shape, int groups);
PeerForms makeTransposed(const zevrant::kernels::TransposedConvolution& shape);
PeerForms makeDense(int numOfFrequencies, int numOfChannels);
PeerForms makeElu(int count);
PeerForms makeSigmoid(int count);

}  // namespace xnnpack
