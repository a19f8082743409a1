// run_model: runs any TensorFlow Lite model whose first input is a picture through the inference
// service, and prints what comes out.
//
//   run_model <model.tflite> [picture] [device]
//
// The picture (any format OpenCV reads; grey when none or "" is given) is scaled to the model's
// input size by nearest sample. Every tensor is bound to a mapped file of its own size; the outputs
// are printed with their dimensions, data type and first values. On a PC the service is the host
// implementation running TensorFlow Lite; on a camera, the camera's own.
#include "Stemlib.h"

#include <larod.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

using namespace Ombrel;

namespace {

std::size_t byteSize(const larodTensor* tensor) {
    std::size_t bytes = 0;
    larodGetTensorByteSize(tensor, &bytes, nullptr);
    return bytes;
}

std::string describe(const larodTensor* tensor) {
    std::ostringstream os;
    const larodTensorDims* dims = larodGetTensorDims(tensor, nullptr);
    os << "[";
    for (std::size_t i = 0; dims != nullptr && i < dims->len; ++i) {
        os << (i > 0 ? ", " : "") << dims->dims[i];
    }
    os << "] " << byteSize(tensor) << " bytes";
    return os.str();
}

// A session that binds every tensor of the model to a file of the tensor's size.
class AnyModel : public LarodModelBase {
public:
    AnyModel(const std::string& path, const std::string& device) : LarodModelBase(path, device) {}

    void bindTensorsToFiles() override {
        for (std::size_t i = 0; i < _numInputTensors; ++i) {
            bind(_larodInputTensorArray[i], "/tmp/larod.in" + std::to_string(i) + "-XXXXXX",
                 "Input " + std::to_string(i), _inputs);
        }
        for (std::size_t i = 0; i < _numOutputTensors; ++i) {
            bind(_larodOutputTensorArray[i], "/tmp/larod.out" + std::to_string(i) + "-XXXXXX",
                 "Output " + std::to_string(i), _outputs);
        }
    }

    bool run(ImageFrameSource& source) {
        const std::size_t pictureBytes = 3 * static_cast<std::size_t>(_inputWidth) * _inputHeight;
        if (byteSize(_larodInputTensorArray[0]) != pictureBytes) {
            std::cerr << "input 0 is not an 8-bit picture of " << _inputWidth << "x" << _inputHeight
                      << "\n";
            return false;
        }
        if (!source.getFrame(Resolution(_inputWidth, _inputHeight), 0,
                             static_cast<uint8_t*>(_inputs[0]->getBuffer()))) {
            return false;
        }
        for (auto& output : _outputs) {
            output->rewind(); // the service writes at the descriptor's position
        }
        larodError* error = nullptr;
        if (!larodRunJob(_larodConnection, _larodJobRequest, &error)) {
            std::cerr << "the job failed: " << (error != nullptr ? error->msg : "") << "\n";
            larodClearError(&error);
            return false;
        }
        return true;
    }

    void printOutputs() const {
        for (std::size_t i = 0; i < _numOutputTensors; ++i) {
            const larodTensor* tensor = _larodOutputTensorArray[i];
            std::cout << "output " << i << ": " << describe(tensor) << ":";
            const auto* bytes = static_cast<const uint8_t*>(_outputs[i]->getBuffer());
            const bool isFloat =
                larodGetTensorDataType(tensor, nullptr) == LAROD_TENSOR_DATA_TYPE_FLOAT32;
            const std::size_t count = std::min<std::size_t>(
                8, isFloat ? byteSize(tensor) / sizeof(float) : byteSize(tensor));
            for (std::size_t k = 0; k < count; ++k) {
                if (isFloat) {
                    float value = 0.0f;
                    std::memcpy(&value, bytes + k * sizeof(float), sizeof value);
                    std::cout << ' ' << value;
                } else {
                    std::cout << ' ' << static_cast<int>(bytes[k]);
                }
            }
            std::cout << "\n";
        }
    }

private:
    void bind(larodTensor* tensor, const std::string& nameTemplate, const std::string& name,
              std::vector<std::unique_ptr<MemoryMappedFile>>& files) {
        files.push_back(std::make_unique<MemoryMappedFile>(
            nameTemplate, static_cast<int>(std::max<std::size_t>(byteSize(tensor), 1))));
        bindTensorToFile(tensor, files.back(), name);
    }

    std::vector<std::unique_ptr<MemoryMappedFile>> _inputs;
    std::vector<std::unique_ptr<MemoryMappedFile>> _outputs;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 4) {
        std::cerr << "usage: run_model <model.tflite> [picture] [device]\n";
        return 2;
    }
    try {
        AnyModel model(argv[1], argc > 3 ? argv[3] : "");
        model.initialize();
        std::cout << "model " << argv[1] << " on " << model.getDeviceName() << ", input "
                  << model.getInputWidth() << "x" << model.getInputHeight() << "\n";

        std::unique_ptr<ImageFrameSource> source;
        if (argc > 2 && argv[2][0] != '\0') {
            source = std::make_unique<ImageFromImageFileSource>(argv[2]);
        } else {
            source = std::make_unique<ConstantStreamSource>(128);
        }
        if (!model.run(*source)) {
            return 1;
        }
        model.printOutputs();
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "run_model: " << e.what() << "\n";
    } catch (const char* e) {
        std::cerr << "run_model: " << e << "\n";
    }
    return 1;
}
