// Model files given to the host inference service: the bytes are loaded on the CPU device, and a
// model that loads gets its tensors and, when they are small, one job. Whatever the file holds,
// the service answers with a model or an error, and gives back everything it handed out.
#include "FuzzSupport.h"

#include <larod.h>

#include <fcntl.h>
#include <unistd.h>

#include <vector>

using StemlibFuzz::check;

namespace {

// Fuzzed shapes can ask for huge tensors; the job runs only for modest ones.
constexpr std::size_t kMaxJobBytes = 4 << 20;

larodConnection* connection() {
    static larodConnection* conn = [] {
        larodConnection* c = nullptr;
        larodError* error = nullptr;
        check(larodConnect(&c, &error), "the service accepts a connection");
        return c;
    }();
    return conn;
}

// Temporary files of the tensors, closed at the end of the input.
struct TensorFiles {
    std::vector<int> fds;
    ~TensorFiles() {
        for (const int fd : fds) {
            ::close(fd);
        }
    }
    bool bind(larodTensor** tensors, std::size_t count, std::size_t& totalBytes) {
        for (std::size_t i = 0; i < count; ++i) {
            std::size_t bytes = 0;
            larodError* error = nullptr;
            if (!larodGetTensorByteSize(tensors[i], &bytes, &error)) {
                larodClearError(&error);
                return false;
            }
            totalBytes += bytes;
            if (totalBytes > kMaxJobBytes) {
                return false;
            }
            char name[] = "/tmp/stemlib-fuzz-tensor-XXXXXX";
            const int fd = ::mkstemp(name);
            check(fd >= 0, "a tensor file can be made");
            ::unlink(name);
            fds.push_back(fd);
            if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0 ||
                !larodSetTensorFd(tensors[i], fd, &error)) {
                larodClearError(&error);
                return false;
            }
        }
        return true;
    }
};

void runOnce(larodConnection* conn, larodModel* model) {
    larodError* error = nullptr;
    std::size_t numInputs = 0;
    std::size_t numOutputs = 0;
    larodTensor** inputs = larodCreateModelInputs(model, &numInputs, &error);
    larodClearError(&error);
    larodTensor** outputs = larodCreateModelOutputs(model, &numOutputs, &error);
    larodClearError(&error);
    TensorFiles files;
    std::size_t totalBytes = 0;
    if (inputs != nullptr && outputs != nullptr && files.bind(inputs, numInputs, totalBytes) &&
        files.bind(outputs, numOutputs, totalBytes)) {
        larodJobRequest* job =
            larodCreateJobRequest(model, inputs, numInputs, outputs, numOutputs, nullptr, &error);
        larodClearError(&error);
        if (job != nullptr) {
            (void)larodRunJob(conn, job, &error);
            larodClearError(&error);
            larodDestroyJobRequest(&job);
        }
    }
    if (inputs != nullptr) {
        check(larodDestroyTensors(conn, &inputs, numInputs, &error), "inputs are given back");
    }
    if (outputs != nullptr) {
        check(larodDestroyTensors(conn, &outputs, numOutputs, &error), "outputs are given back");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const StemlibFuzz::ScratchFile file(".tflite");
    file.write(StemlibFuzz::text(data, size));
    larodConnection* conn = connection();
    larodError* error = nullptr;
    const larodDevice* device = larodGetDevice(conn, "cpu-tflite", 0, &error);
    check(device != nullptr, "the default camera lists cpu-tflite");

    const int fd = ::open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
    check(fd >= 0, "the model file opens");
    larodModel* model =
        larodLoadModel(conn, fd, device, LAROD_ACCESS_PRIVATE, "fuzz", nullptr, &error);
    ::close(fd);
    if (model == nullptr) {
        check(error != nullptr && error->msg != nullptr, "a refused model comes with a reason");
        larodClearError(&error);
        return 0;
    }
    runOnce(conn, model);
    check(larodDeleteModel(conn, model, &error), "a loaded model can be deleted");
    larodDestroyModel(&model);
    return 0;
}
