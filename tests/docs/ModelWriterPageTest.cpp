// The model of docs/model-writer.md, written as the page writes it, into the folder that the test stands in.
#include <gtest/gtest.h>

#include "files/TemporaryFolder.h"
#include "modelwriter/ModelWriter.h"
#include "neural/NeuralModel.h"

namespace {

void writeTheModel(){
#include "ModelWriterExample.inc"
}

TEST(ModelWriterPage, itsModelDoesWhatItsNameSays) {
    const zevrant::TemporaryFolder folder;
    std::filesystem::current_path(folder.path);
    writeTheModel();
    zevrant::NeuralModel<float> model;
    ASSERT_TRUE(model.loadModel(zevrant::File(folder.getPath("quieter.model"))));
    const auto results = model.process(zevrant::ComplexSignal32(1, 1025, 1.0f));
    ASSERT_EQ(results.size(), 1u);
    const std::complex<float>* mask = results[0].getReadChannelPtr(0);
    EXPECT_FLOAT_EQ(mask[1000].real(), mask[300].real() / 2);
}

}  // namespace
