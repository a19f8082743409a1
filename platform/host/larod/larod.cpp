// The host inference service: the camera SDK's larod C API, running models with TensorFlow Lite
// in the calling process.
//
// On the camera, larod is a service that a client reaches over a connection; models live in the
// service, and tensors travel as file descriptors. Here the "service" is the connection object:
// it owns the models that were loaded through it (each with its own TensorFlow Lite interpreter),
// and a job reads its inputs from, and writes its outputs to, the descriptors the way the
// service does (see larod.h). Handles given to the caller (models, tensors, job requests, maps,
// errors) are plain heap objects that the matching destroy call releases.
#include "larod.h"

#include "HostCamera.h"
#include "XnnpackDelegate.h"
#include "stemlib-host-larod.h"

#include <flatbuffers/flatbuffers.h>
#include <flatbuffers/flexbuffers.h>
#include <tensorflow/lite/c/c_api.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// ---------------------------------------------------------------------------------------------
// Call log

constexpr std::size_t kLogCapacity = 4096;

constexpr larodErrorCode invalidArgument() {
    return static_cast<larodErrorCode>(EINVAL);
}

struct CallLog {
    std::mutex mutex;
    std::deque<std::string> entries;
};

CallLog& callLog() {
    static CallLog log;
    return log;
}

// One larod call: recorded in the call log when it returns, with " failed" at the end when it
// failed. The failures below set the caller's error (when it gave one) as the service would.
class CallRecord {
public:
    CallRecord(const char* name, larodError** error, const std::string& detail = std::string())
        : _name(name), _error(error),
          _entry(detail.empty() ? std::string(name) : std::string(name) + " " + detail) {}
    ~CallRecord() {
        CallLog& log = callLog();
        std::lock_guard<std::mutex> lock(log.mutex);
        log.entries.push_back(_failed ? _entry + " failed" : _entry);
        while (log.entries.size() > kLogCapacity) {
            log.entries.pop_front();
        }
    }
    CallRecord(const CallRecord&) = delete;
    CallRecord& operator=(const CallRecord&) = delete;

    void setDetail(const std::string& detail) { _entry += " " + detail; }

    void fail(larodErrorCode code, const std::string& message);
    // True, with the error set, when the host controls asked this call to fail.
    bool injected(larodErrorCode code) {
        std::optional<std::string> message = stemlib_host::takeFailure(_name);
        if (message) {
            fail(code, *message);
        }
        return message.has_value();
    }
    // False, with an invalid-argument error, when an argument is missing.
    bool require(bool present, const char* problem) {
        if (!present) {
            fail(invalidArgument(), problem);
        }
        return present;
    }

private:
    const char* _name;
    larodError** _error;
    std::string _entry;
    bool _failed = false;
};

// ---------------------------------------------------------------------------------------------
// Errors

void freeError(larodError* error) {
    if (error != nullptr) {
        std::free(const_cast<char*>(error->msg));
        std::free(error);
    }
}

void CallRecord::fail(larodErrorCode code, const std::string& message) {
    _failed = true;
    if (_error == nullptr) {
        return;
    }
    // An error the caller did not clear is replaced, not leaked.
    freeError(*_error);
    *_error = nullptr;
    auto* created = static_cast<larodError*>(std::malloc(sizeof(larodError)));
    if (created == nullptr) {
        return;
    }
    created->code = code;
    created->msg = strdup(message.c_str());
    *_error = created;
}

// ---------------------------------------------------------------------------------------------
// Tensors and models

struct TensorInfo {
    larodTensorDims dims{};
    larodTensorPitches pitches{};
    larodTensorDataType dataType = LAROD_TENSOR_DATA_TYPE_UNSPECIFIED;
    larodTensorLayout layout = LAROD_TENSOR_LAYOUT_UNSPECIFIED;
    std::size_t byteSize = 0;
    std::string name;

    bool sameShape(const TensorInfo& other) const {
        return dataType == other.dataType && dims.len == other.dims.len &&
               std::equal(dims.dims, dims.dims + dims.len, other.dims.dims);
    }
};

enum class Role { Input, Output };

larodTensorDataType toLarod(TfLiteType type) {
    switch (type) {
    case kTfLiteFloat32:
        return LAROD_TENSOR_DATA_TYPE_FLOAT32;
    case kTfLiteInt32:
        return LAROD_TENSOR_DATA_TYPE_INT32;
    case kTfLiteUInt8:
        return LAROD_TENSOR_DATA_TYPE_UINT8;
    case kTfLiteInt64:
        return LAROD_TENSOR_DATA_TYPE_INT64;
    case kTfLiteBool:
        return LAROD_TENSOR_DATA_TYPE_BOOL;
    case kTfLiteInt16:
        return LAROD_TENSOR_DATA_TYPE_INT16;
    case kTfLiteInt8:
        return LAROD_TENSOR_DATA_TYPE_INT8;
    case kTfLiteFloat16:
        return LAROD_TENSOR_DATA_TYPE_FLOAT16;
    case kTfLiteFloat64:
        return LAROD_TENSOR_DATA_TYPE_FLOAT64;
    case kTfLiteUInt64:
        return LAROD_TENSOR_DATA_TYPE_UINT64;
    case kTfLiteUInt32:
        return LAROD_TENSOR_DATA_TYPE_UINT32;
    default:
        return LAROD_TENSOR_DATA_TYPE_INVALID;
    }
}

// Describes an engine tensor; false with a message when larod cannot carry it.
bool describe(const TfLiteTensor* tensor, TensorInfo& info, std::string& problem) {
    // The engine gives no tensor for an input or output index outside the model's tensors.
    if (tensor == nullptr) {
        problem = "the model lists an input or output that is not one of its tensors";
        return false;
    }
    info.name = TfLiteTensorName(tensor) != nullptr ? TfLiteTensorName(tensor) : "";
    info.dataType = toLarod(TfLiteTensorType(tensor));
    if (info.dataType == LAROD_TENSOR_DATA_TYPE_INVALID) {
        problem = "tensor \"" + info.name + "\" has a data type that larod does not carry";
        return false;
    }
    const int32_t rank = TfLiteTensorNumDims(tensor);
    if (rank < 0 || rank > LAROD_TENSOR_MAX_LEN) {
        problem = "tensor \"" + info.name + "\" has " + std::to_string(rank) +
                  " dimensions, more than larod carries";
        return false;
    }
    info.dims.len = static_cast<std::size_t>(rank);
    info.pitches.len = info.dims.len;
    for (int32_t i = 0; i < rank; ++i) {
        info.dims.dims[i] = static_cast<std::size_t>(std::max(0, TfLiteTensorDim(tensor, i)));
    }
    info.byteSize = TfLiteTensorByteSize(tensor);
    // Pitch i is the number of bytes that dimension i and all later ones span.
    const std::size_t elements = [&info]() {
        std::size_t count = 1;
        for (std::size_t i = 0; i < info.dims.len; ++i) {
            count *= info.dims.dims[i];
        }
        return count;
    }();
    const std::size_t elementSize = elements == 0 ? 0 : info.byteSize / elements;
    std::size_t pitch = elementSize;
    for (std::size_t i = info.dims.len; i-- > 0;) {
        pitch *= info.dims.dims[i];
        info.pitches.pitches[i] = pitch;
    }
    info.layout = rank == 4 ? LAROD_TENSOR_LAYOUT_NHWC : LAROD_TENSOR_LAYOUT_UNSPECIFIED;
    return true;
}

struct EngineDeleter {
    void operator()(TfLiteModel* model) const { TfLiteModelDelete(model); }
    void operator()(TfLiteInterpreterOptions* options) const {
        TfLiteInterpreterOptionsDelete(options);
    }
    void operator()(TfLiteInterpreter* interpreter) const { TfLiteInterpreterDelete(interpreter); }
};

// The XNNPACK delegate of one model, behind a delegate of the service's own whose Prepare runs
// XNNPACK's and then reads the engine's execution plan: how many of the model's operators
// XNNPACK took, and in how many partitions. XNNPACK's kernels are handed XNNPACK's own delegate,
// so the wrapper is seen by the engine only while the graph is being delegated.
struct Delegation {
    TfLiteDelegate* xnnpack = nullptr;
    TfLiteDelegate wrapper{};
    int operators = 0;
    int delegated = 0;
    int partitions = 0;

    explicit Delegation(int threads) {
        TfLiteXNNPackDelegateOptions options = TfLiteXNNPackDelegateOptionsDefault();
        options.num_threads = threads;
        options.flags = TFLITE_XNNPACK_DELEGATE_FLAG_QS8 | TFLITE_XNNPACK_DELEGATE_FLAG_QU8;
        xnnpack = TfLiteXNNPackDelegateCreate(&options);
        if (xnnpack != nullptr) {
            wrapper = *xnnpack;
            wrapper.data_ = this;
            wrapper.Prepare = &Delegation::prepare;
        }
    }
    ~Delegation() {
        if (xnnpack != nullptr) {
            TfLiteXNNPackDelegateDelete(xnnpack);
        }
    }
    Delegation(const Delegation&) = delete;
    Delegation& operator=(const Delegation&) = delete;

    static TfLiteStatus prepare(TfLiteContext* context, TfLiteDelegate* wrapper) {
        auto* self = static_cast<Delegation*>(wrapper->data_);
        TfLiteIntArray* plan = nullptr;
        if (context->GetExecutionPlan(context, &plan) != kTfLiteOk) {
            return kTfLiteError;
        }
        self->operators = plan->size;
        const TfLiteStatus status = self->xnnpack->Prepare(context, self->xnnpack);
        if (status != kTfLiteOk || context->GetExecutionPlan(context, &plan) != kTfLiteOk) {
            return kTfLiteError;
        }
        self->delegated = 0;
        self->partitions = 0;
        for (int i = 0; i < plan->size; ++i) {
            TfLiteNode* node = nullptr;
            TfLiteRegistration* registration = nullptr;
            if (context->GetNodeAndRegistration(context, plan->data[i], &node, &registration) ==
                    kTfLiteOk &&
                node->delegate == self->xnnpack && node->builtin_data != nullptr) {
                const auto* params = static_cast<const TfLiteDelegateParams*>(node->builtin_data);
                ++self->partitions;
                self->delegated += params->nodes_to_replace->size;
            }
        }
        return kTfLiteOk;
    }
};

// A model as the service holds it. The engine reads the model's bytes in place, so they live as
// long as the engine objects; members are destroyed in reverse order, interpreter first, then
// its options and the delegate it ran with.
struct ServiceModel {
    std::uint64_t id = 0;
    std::string name;
    std::vector<std::uint8_t> bytes;
    std::unique_ptr<TfLiteModel, EngineDeleter> model;
    std::unique_ptr<Delegation> delegation;
    std::unique_ptr<TfLiteInterpreterOptions, EngineDeleter> options;
    std::unique_ptr<TfLiteInterpreter, EngineDeleter> interpreter;
    std::vector<TensorInfo> inputs;
    std::vector<TensorInfo> outputs;
    std::string engineMessage; // the engine's last report
};

// The engine's printf-style report; the format comes from the engine.
__attribute__((format(printf, 2, 0))) void reportEngineMessage(void* userData, const char* format,
                                                               va_list args) {
    auto* model = static_cast<ServiceModel*>(userData);
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    model->engineMessage = text;
}

std::atomic<std::uint64_t> g_nextModelId{1};

// On the camera the engine runs inside the inference service's own process, so a model that
// crashes it cannot take the application down. TensorFlow Lite 2.9 trusts much of a model: damaged
// indices crash it while it builds the interpreter, and damaged slice or reshape constants make
// its kernels read outside their buffers. The stand-in therefore first builds, prepares and runs
// a new model once, on zeroed inputs, in a child process, and refuses it if the engine dies
// there. A child still running after a minute is ended and the model accepted.
void ignoreEngineMessage(void*, const char*, va_list) {}

// Models that survived their trial run in this process, by size and content hash, so that a
// model loaded again (each detector's initialize loads its file) is not tried again.
std::mutex g_survivorsMutex;
std::set<std::pair<std::size_t, std::size_t>> g_survivors;

std::pair<std::size_t, std::size_t> survivorKey(const std::vector<std::uint8_t>& bytes) {
    return {bytes.size(), std::hash<std::string_view>{}(std::string_view(
                              reinterpret_cast<const char*>(bytes.data()), bytes.size()))};
}

bool engineSurvivedBefore(const std::vector<std::uint8_t>& bytes) {
    const std::lock_guard<std::mutex> lock(g_survivorsMutex);
    return g_survivors.count(survivorKey(bytes)) != 0;
}

bool engineSurvivesTheModel(const TfLiteModel* model, const std::vector<std::uint8_t>& bytes,
                            std::string& problem) {
    constexpr int kEngineRefused = 42;
    const pid_t child = ::fork();
    if (child < 0) {
        return true; // no trial possible; the model is taken as it is
    }
    if (child == 0) {
        // Die of the signal itself, without the process's crash handlers.
        for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
            std::signal(signal, SIG_DFL);
        }
        TfLiteInterpreterOptions* options = TfLiteInterpreterOptionsCreate();
        TfLiteInterpreterOptionsSetErrorReporter(options, ignoreEngineMessage, nullptr);
        TfLiteInterpreter* interpreter = TfLiteInterpreterCreate(model, options);
        if (interpreter == nullptr || TfLiteInterpreterAllocateTensors(interpreter) != kTfLiteOk) {
            ::_exit(kEngineRefused);
        }
        for (int32_t i = 0; i < TfLiteInterpreterGetInputTensorCount(interpreter); ++i) {
            TfLiteTensor* tensor = TfLiteInterpreterGetInputTensor(interpreter, i);
            if (TfLiteTensorData(tensor) != nullptr) {
                std::memset(TfLiteTensorData(tensor), 0, TfLiteTensorByteSize(tensor));
            }
        }
        ::_exit(TfLiteInterpreterInvoke(interpreter) == kTfLiteOk ? 0 : kEngineRefused);
    }
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (;;) {
        const pid_t done = ::waitpid(child, &status, WNOHANG);
        if (done == child || (done < 0 && errno != EINTR)) {
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kEngineRefused)) {
        const std::lock_guard<std::mutex> lock(g_survivorsMutex);
        g_survivors.insert(survivorKey(bytes));
        return true; // a refusal is reported by the real build
    }
    problem = WIFSIGNALED(status) ? "TensorFlow Lite crashes on it (signal " +
                                        std::to_string(WTERMSIG(status)) + ")"
                                  : "TensorFlow Lite crashes on it";
    return false;
}

// What TensorFlow Lite 2.9 reads without checking while it builds the interpreter, and crashes on
// when it is missing or damaged: the model's list of subgraphs, and each custom operator's
// options (a FlexBuffer, such as the options of TFLite_Detection_PostProcess). These are checked
// first, walking only the tables on the way to them, each verified before it is read. Field
// slots are those of the model format: Model.subgraphs 2, SubGraph.operators 3,
// Operator.custom_options 5 (behind the two slots of the builtin options union) and
// Operator.custom_options_format 6 (0 is FlexBuffers).
bool engineCanBuild(const std::vector<std::uint8_t>& bytes, std::string& problem) {
    using flatbuffers::Offset;
    using flatbuffers::Table;
    using flatbuffers::Vector;
    constexpr auto slot = [](int n) { return static_cast<flatbuffers::voffset_t>(4 + 2 * n); };
    flatbuffers::Verifier verifier(bytes.data(), bytes.size());
    const auto damaged = [&problem](const std::string& what) {
        problem = "the model's " + what + " are damaged";
        return false;
    };
    if (!verifier.VerifyAlignment(0, sizeof(flatbuffers::uoffset_t)) ||
        !verifier.Verify<flatbuffers::uoffset_t>(0)) {
        return damaged("tables");
    }
    const Table* model = flatbuffers::GetRoot<Table>(bytes.data());
    if (!model->VerifyTableStart(verifier) || !model->VerifyOffset(verifier, slot(2))) {
        return damaged("tables");
    }
    const auto* subgraphs = model->GetPointer<const Vector<Offset<Table>>*>(slot(2));
    if (subgraphs == nullptr) {
        problem = "the model has no subgraphs";
        return false;
    }
    if (!verifier.VerifyVector(subgraphs)) {
        return damaged("subgraphs");
    }
    for (flatbuffers::uoffset_t g = 0; g < subgraphs->size(); ++g) {
        const Table* subgraph = subgraphs->Get(g);
        if (!subgraph->VerifyTableStart(verifier) || !subgraph->VerifyOffset(verifier, slot(3))) {
            return damaged("subgraphs");
        }
        const auto* operators = subgraph->GetPointer<const Vector<Offset<Table>>*>(slot(3));
        if (operators != nullptr && !verifier.VerifyVector(operators)) {
            return damaged("operators");
        }
        for (flatbuffers::uoffset_t o = 0; operators != nullptr && o < operators->size(); ++o) {
            const Table* op = operators->Get(o);
            if (!op->VerifyTableStart(verifier) || !op->VerifyOffset(verifier, slot(5)) ||
                !op->VerifyField<std::int8_t>(verifier, slot(6), 1)) {
                return damaged("operators");
            }
            const auto* options = op->GetPointer<const Vector<std::uint8_t>*>(slot(5));
            if (options != nullptr && !verifier.VerifyVector(options)) {
                return damaged("operators");
            }
            if (options != nullptr && options->size() > 0 &&
                op->GetField<std::int8_t>(slot(6), 0) == 0 &&
                !flexbuffers::VerifyBuffer(options->data(), options->size())) {
                return damaged("custom options of operator " + std::to_string(o));
            }
            verifier.EndTable();
        }
        verifier.EndTable();
    }
    verifier.EndTable();
    return true;
}

// TensorFlow Lite 2.9's SLICE checks begin + size against each dimension, but neither a negative
// begin nor a sum that overflows, and then copies from wherever begin points. The trial run does
// not always catch that (a read far outside lands on mapped memory in the child but not in the
// parent), so the constant begin and size of every SLICE are checked here. The model's tables
// have been verified by the engine's own reader already; only the indices between them are
// checked on the way. Slots: Model.operator_codes 1, subgraphs 2, buffers 4; SubGraph.tensors 0,
// operators 3; Operator.opcode_index 0, inputs 1; OperatorCode.deprecated_builtin_code 0,
// builtin_code 3; Tensor.shape 0, type 1, buffer 2; Buffer.data 0.
bool slicesStayInside(const std::vector<std::uint8_t>& bytes, std::string& problem) {
    using flatbuffers::Offset;
    using flatbuffers::Table;
    using flatbuffers::Vector;
    constexpr auto slot = [](int n) { return static_cast<flatbuffers::voffset_t>(4 + 2 * n); };
    constexpr int kSlice = 65;
    constexpr std::int8_t kInt32 = 2;
    constexpr std::int8_t kInt64 = 4;
    const Table* model = flatbuffers::GetRoot<Table>(bytes.data());
    const auto* codes = model->GetPointer<const Vector<Offset<Table>>*>(slot(1));
    const auto* subgraphs = model->GetPointer<const Vector<Offset<Table>>*>(slot(2));
    const auto* buffers = model->GetPointer<const Vector<Offset<Table>>*>(slot(4));
    if (codes == nullptr || subgraphs == nullptr || buffers == nullptr) {
        return true; // nothing to slice with; the engine answers for the rest
    }
    // The constant values of a tensor, widened; empty when it has none or another type.
    const auto constantValues = [&](const Table* tensor) {
        std::vector<std::int64_t> values;
        const std::int8_t type = tensor->GetField<std::int8_t>(slot(1), 0);
        const std::uint32_t index = tensor->GetField<std::uint32_t>(slot(2), 0);
        if ((type != kInt32 && type != kInt64) || index >= buffers->size()) {
            return values;
        }
        const auto* data = buffers->Get(index)->GetPointer<const Vector<std::uint8_t>*>(slot(0));
        const std::size_t width = type == kInt32 ? 4 : 8;
        for (std::size_t at = 0; data != nullptr && at + width <= data->size(); at += width) {
            if (width == 4) {
                std::int32_t value = 0;
                std::memcpy(&value, data->data() + at, width);
                values.push_back(value);
            } else {
                std::int64_t value = 0;
                std::memcpy(&value, data->data() + at, width);
                values.push_back(value);
            }
        }
        return values;
    };
    for (flatbuffers::uoffset_t g = 0; g < subgraphs->size(); ++g) {
        const Table* subgraph = subgraphs->Get(g);
        const auto* tensors = subgraph->GetPointer<const Vector<Offset<Table>>*>(slot(0));
        const auto* operators = subgraph->GetPointer<const Vector<Offset<Table>>*>(slot(3));
        for (flatbuffers::uoffset_t o = 0; tensors && operators && o < operators->size(); ++o) {
            const Table* op = operators->Get(o);
            const std::uint32_t codeIndex = op->GetField<std::uint32_t>(slot(0), 0);
            const auto* inputs = op->GetPointer<const Vector<std::int32_t>*>(slot(1));
            if (codeIndex >= codes->size() || inputs == nullptr || inputs->size() < 3) {
                continue;
            }
            const Table* code = codes->Get(codeIndex);
            const int builtin = std::max<int>(code->GetField<std::int8_t>(slot(0), 0),
                                              code->GetField<std::int32_t>(slot(3), 0));
            const auto tensorAt = [tensors](std::int32_t index) -> const Table* {
                return index >= 0 && static_cast<flatbuffers::uoffset_t>(index) < tensors->size()
                           ? tensors->Get(static_cast<flatbuffers::uoffset_t>(index))
                           : nullptr;
            };
            const Table* input = tensorAt(inputs->Get(0));
            const Table* beginTensor = tensorAt(inputs->Get(1));
            const Table* sizeTensor = tensorAt(inputs->Get(2));
            if (builtin != kSlice || !input || !beginTensor || !sizeTensor) {
                continue;
            }
            const auto* shape = input->GetPointer<const Vector<std::int32_t>*>(slot(0));
            const std::vector<std::int64_t> begin = constantValues(beginTensor);
            const std::vector<std::int64_t> size = constantValues(sizeTensor);
            for (std::size_t d = 0;
                 shape && d < shape->size() && d < begin.size() && d < size.size(); ++d) {
                const std::int64_t dimension = shape->Get(static_cast<flatbuffers::uoffset_t>(d));
                const bool inside =
                    begin[d] >= 0 && begin[d] <= dimension &&
                    (size[d] == -1 || (size[d] >= 0 && size[d] <= dimension - begin[d]));
                if (!inside) {
                    problem = "operator " + std::to_string(o) + " (SLICE) reads outside its input";
                    return false;
                }
            }
        }
    }
    return true;
}

// TensorFlow Lite 2.9 plans its tensor arena on the assumption that each tensor is written by
// one operator at most and that the graph's inputs are written by none. A damaged model that
// names one tensor as the output of two operators gets a plan in which the later write runs past
// the arena, depending on what the heap held before, which a trial run cannot rule out. The
// tables have been verified by the engine's reader; the slots are those of slicesStayInside,
// with SubGraph.inputs 1 and Operator.outputs 2.
bool eachTensorWrittenOnce(const std::vector<std::uint8_t>& bytes, std::string& problem) {
    using flatbuffers::Offset;
    using flatbuffers::Table;
    using flatbuffers::Vector;
    constexpr auto slot = [](int n) { return static_cast<flatbuffers::voffset_t>(4 + 2 * n); };
    const Table* model = flatbuffers::GetRoot<Table>(bytes.data());
    const auto* subgraphs = model->GetPointer<const Vector<Offset<Table>>*>(slot(2));
    for (flatbuffers::uoffset_t g = 0; subgraphs != nullptr && g < subgraphs->size(); ++g) {
        const Table* subgraph = subgraphs->Get(g);
        const auto* tensors = subgraph->GetPointer<const Vector<Offset<Table>>*>(slot(0));
        const auto* inputs = subgraph->GetPointer<const Vector<std::int32_t>*>(slot(1));
        const auto* operators = subgraph->GetPointer<const Vector<Offset<Table>>*>(slot(3));
        if (tensors == nullptr || operators == nullptr) {
            continue;
        }
        // -1: not written; -2: an input of the graph; else the operator that writes it.
        std::vector<long> writer(tensors->size(), -1);
        for (flatbuffers::uoffset_t i = 0; inputs != nullptr && i < inputs->size(); ++i) {
            const std::int32_t t = inputs->Get(i);
            if (t >= 0 && static_cast<std::size_t>(t) < writer.size()) {
                writer[static_cast<std::size_t>(t)] = -2;
            }
        }
        for (flatbuffers::uoffset_t o = 0; o < operators->size(); ++o) {
            const auto* outputs =
                operators->Get(o)->GetPointer<const Vector<std::int32_t>*>(slot(2));
            for (flatbuffers::uoffset_t i = 0; outputs != nullptr && i < outputs->size(); ++i) {
                const std::int32_t t = outputs->Get(i);
                if (t < 0 || static_cast<std::size_t>(t) >= writer.size()) {
                    continue; // optional, or refused by the engine itself
                }
                long& by = writer[static_cast<std::size_t>(t)];
                if (by != -1) {
                    problem = "tensor " + std::to_string(t) + " is written by operator " +
                              std::to_string(o) +
                              (by == -2 ? std::string(" but is an input of the model")
                                        : " and by operator " + std::to_string(by));
                    return false;
                }
                by = static_cast<long>(o);
            }
        }
    }
    return true;
}

// Reads the whole file from offset 0, without moving the descriptor's position.
bool readModelFile(int fd, std::vector<std::uint8_t>& bytes, std::string& problem) {
    constexpr std::size_t kMaxModelBytes = std::size_t(1) << 31;
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        problem = std::string("cannot read the model file: ") + std::strerror(errno);
        return false;
    }
    std::size_t chunk = S_ISREG(info.st_mode) && info.st_size > 0
                            ? static_cast<std::size_t>(info.st_size)
                            : std::size_t(1) << 20;
    bytes.clear();
    off_t offset = 0;
    for (;;) {
        if (bytes.size() + chunk > kMaxModelBytes) {
            problem = "the model file is larger than 2 GiB";
            return false;
        }
        const std::size_t start = bytes.size();
        bytes.resize(start + chunk);
        const ssize_t got = pread(fd, bytes.data() + start, chunk, offset);
        if (got < 0) {
            if (errno == EINTR) {
                bytes.resize(start);
                continue;
            }
            problem = std::string("cannot read the model file: ") + std::strerror(errno);
            return false;
        }
        bytes.resize(start + static_cast<std::size_t>(got));
        if (got == 0) {
            break;
        }
        offset += got;
    }
    if (bytes.empty()) {
        problem = "the model file is empty";
        return false;
    }
    return true;
}

int threadCount() {
    const std::string text = stemlib_host::camera()->getOr("larod.threads", "1");
    const int threads = std::atoi(text.c_str());
    return threads >= 1 && threads <= 64 ? threads : 1;
}

// Whether models on a device run through XNNPACK: the devices of the description's
// "larod.xnnpack", by default the accelerators.
bool delegatedDevice(const std::string& device) {
    const std::string list = stemlib_host::camera()->getOr(
        "larod.xnnpack", "a9-dlpu-tflite, axis-a8-dlpu-tflite, google-edge-tpu-tflite");
    const std::vector<std::string> devices = stemlib_host::splitList(list);
    return std::find(devices.begin(), devices.end(), device) != devices.end();
}

std::string counted(int count, const char* word) {
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

// The service's log: the system log, as the camera's service writes it.
void logService(int priority, const std::string& text) {
    syslog(priority, "%s", text.c_str());
}

bool descriptorOpen(int fd) {
    return fd >= 0 && fcntl(fd, F_GETFD) != -1;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Handle types

struct larodDevice {
    std::string name;
    std::uint32_t instance = 0;
};

struct larodConnection {
    std::vector<std::unique_ptr<larodDevice>> devices;
    std::vector<const larodDevice*> deviceList; // ends with a null entry, so never empty
    std::map<std::uint64_t, std::unique_ptr<ServiceModel>> models;

    bool owns(const larodDevice* device) const {
        return std::any_of(devices.begin(), devices.end(),
                           [device](const auto& own) { return own.get() == device; });
    }
};

struct larodModel {
    std::uint64_t id = LAROD_INVALID_MODEL_ID;
    std::string name;
    std::vector<TensorInfo> inputs;
    std::vector<TensorInfo> outputs;
};

struct larodTensor {
    TensorInfo info;
    int fd = LAROD_INVALID_FD;
    Role role = Role::Input;
    std::size_t index = 0;
};

struct larodJobRequest {
    std::uint64_t modelId = LAROD_INVALID_MODEL_ID;
    std::vector<larodTensor> inputs; // copies, taken when the request is made
    std::vector<larodTensor> outputs;
};

struct larodMap {
    std::map<std::string, std::string> strings;
    std::map<std::string, std::int64_t> integers;
};

namespace {

// The log detail of a release call: "null" for a null handle.
template <typename Handle>
std::string nullDetail(Handle* const* handle) {
    return handle == nullptr || *handle == nullptr ? "null" : "";
}

std::string tensorLabel(const larodTensor* tensor) {
    return (tensor->role == Role::Input ? "input " : "output ") + std::to_string(tensor->index);
}

larodTensor** createTensors(const std::vector<TensorInfo>& infos, Role role,
                            std::size_t* numTensors) {
    auto** array = new larodTensor*[infos.empty() ? 1 : infos.size()];
    for (std::size_t i = 0; i < infos.size(); ++i) {
        array[i] = new larodTensor{infos[i], LAROD_INVALID_FD, role, i};
    }
    if (numTensors != nullptr) {
        *numTensors = infos.size();
    }
    return array;
}

bool checkTensors(larodTensor** tensors, std::size_t count, const std::vector<TensorInfo>& infos,
                  const char* what, CallRecord& record) {
    if (count != infos.size()) {
        record.fail(LAROD_ERROR_TENSOR_MISMATCH,
                    std::string("the model has ") + std::to_string(infos.size()) + " " + what +
                        " tensors, the request " + std::to_string(count));
        return false;
    }
    if (count > 0 && tensors == nullptr) {
        record.fail(invalidArgument(), std::string("the ") + what + " tensor array is null");
        return false;
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (tensors[i] == nullptr) {
            record.fail(invalidArgument(),
                        std::string(what) + " tensor " + std::to_string(i) + " is null");
            return false;
        }
        if (!tensors[i]->info.sameShape(infos[i])) {
            record.fail(LAROD_ERROR_TENSOR_MISMATCH,
                        std::string(what) + " tensor " + std::to_string(i) +
                            " does not match the model's type and dimensions");
            return false;
        }
    }
    return true;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Errors

extern "C" void larodClearError(larodError** error) {
    CallRecord record("larodClearError", nullptr, nullDetail(error));
    if (error == nullptr || *error == nullptr) {
        return;
    }
    freeError(*error);
    *error = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Connection and devices

extern "C" bool larodConnect(larodConnection** conn, larodError** error) {
    CallRecord record("larodConnect", error);
    if (record.injected(LAROD_ERROR_CONNECTION) ||
        !record.require(conn != nullptr, "the connection pointer is null")) {
        return false;
    }
    auto connection = std::make_unique<larodConnection>();
    const auto camera = stemlib_host::camera();
    const std::string devices = camera->getOr("larod.devices", "cpu-tflite, a9-dlpu-tflite");
    for (const std::string& name : stemlib_host::splitList(devices)) {
        auto device = std::make_unique<larodDevice>();
        device->name = name;
        for (const auto& earlier : connection->devices) {
            if (earlier->name == name) {
                ++device->instance;
            }
        }
        connection->deviceList.push_back(device.get());
        connection->devices.push_back(std::move(device));
    }
    connection->deviceList.push_back(nullptr);
    *conn = connection.release();
    return true;
}

extern "C" bool larodDisconnect(larodConnection** conn, larodError** error) {
    CallRecord record("larodDisconnect", error, nullDetail(conn));
    if (conn == nullptr || *conn == nullptr) {
        return true;
    }
    // A requested failure is reported, but the connection closes all the same, as it does on a
    // camera whose service has gone away.
    const bool failed = record.injected(LAROD_ERROR_CONNECTION);
    delete *conn;
    *conn = nullptr;
    return !failed;
}

extern "C" const larodDevice** larodListDevices(larodConnection* conn, size_t* numDevices,
                                                larodError** error) {
    CallRecord record("larodListDevices", error);
    if (record.injected(LAROD_ERROR_CONNECTION) ||
        !record.require(conn != nullptr, "the connection is null")) {
        return nullptr;
    }
    if (numDevices != nullptr) {
        *numDevices = conn->devices.size();
    }
    return conn->deviceList.data();
}

extern "C" const larodDevice* larodGetDevice(const larodConnection* conn, const char* name,
                                             uint32_t instance, larodError** error) {
    CallRecord record("larodGetDevice", error, name != nullptr ? name : "null");
    if (record.injected(LAROD_ERROR_INVALID_CHIP_ID) ||
        !record.require(conn != nullptr && name != nullptr,
                        "the connection or the device name is null")) {
        return nullptr;
    }
    for (const auto& device : conn->devices) {
        if (device->name == name && device->instance == instance) {
            return device.get();
        }
    }
    record.fail(LAROD_ERROR_INVALID_CHIP_ID, std::string("no device \"") + name +
                                                 "\" with instance " + std::to_string(instance));
    return nullptr;
}

extern "C" const char* larodGetDeviceName(const larodDevice* dev, larodError** error) {
    CallRecord record("larodGetDeviceName", error);
    if (record.injected(LAROD_ERROR_INVALID_CHIP_ID) ||
        !record.require(dev != nullptr, "the device is null")) {
        return nullptr;
    }
    return dev->name.c_str();
}

// ---------------------------------------------------------------------------------------------
// Models

extern "C" larodModel* larodLoadModel(larodConnection* conn, int fd, const larodDevice* dev,
                                      larodAccess access, const char* name, const larodMap* params,
                                      larodError** error) {
    (void)params; // the engine takes no model parameters
    CallRecord record("larodLoadModel", error, dev != nullptr ? dev->name : std::string("null"));
    auto fail = [&record](larodErrorCode code, const std::string& message) -> larodModel* {
        record.fail(code, message);
        return nullptr;
    };
    if (record.injected(LAROD_ERROR_LOAD_MODEL) ||
        !record.require(conn != nullptr, "the connection is null") ||
        !record.require(dev != nullptr, "no device given")) {
        return nullptr;
    }
    if (!conn->owns(dev)) {
        return fail(LAROD_ERROR_INVALID_CHIP_ID, "the device does not belong to this connection");
    }
    if (access != LAROD_ACCESS_PRIVATE && access != LAROD_ACCESS_PUBLIC) {
        return fail(LAROD_ERROR_INVALID_ACCESS, "invalid access mode");
    }
    if (fd < 0) {
        return fail(LAROD_ERROR_FD, "invalid model file descriptor");
    }
    const std::string suffix = "-tflite";
    if (dev->name.size() < suffix.size() ||
        dev->name.compare(dev->name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "device \"" + dev->name + "\" does not run TensorFlow Lite models");
    }

    auto model = std::make_unique<ServiceModel>();
    model->id = g_nextModelId++;
    model->name = name != nullptr ? name : "";
    std::string problem;
    if (!readModelFile(fd, model->bytes, problem)) {
        return fail(LAROD_ERROR_LOAD_MODEL, problem);
    }
    model->model.reset(TfLiteModelCreate(model->bytes.data(), model->bytes.size()));
    if (!model->model) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "the file \"" + model->name + "\" is not a valid TensorFlow Lite model");
    }
    if (!engineCanBuild(model->bytes, problem)) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "the file \"" + model->name +
                        "\" is not a valid TensorFlow Lite model: " + problem);
    }
    if (!slicesStayInside(model->bytes, problem) || !eachTensorWrittenOnce(model->bytes, problem)) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "the file \"" + model->name +
                        "\" is not a valid TensorFlow Lite model: " + problem);
    }
    if (!engineSurvivedBefore(model->bytes) &&
        !engineSurvivesTheModel(model->model.get(), model->bytes, problem)) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "the file \"" + model->name +
                        "\" is not a usable TensorFlow Lite model: " + problem);
    }
    const int threads = threadCount();
    const std::string where = "larod: model \"" + model->name + "\" on " + dev->name + ": ";
    const auto build = [&model, threads](Delegation* delegation) {
        model->options.reset(TfLiteInterpreterOptionsCreate());
        TfLiteInterpreterOptionsSetNumThreads(model->options.get(), threads);
        TfLiteInterpreterOptionsSetErrorReporter(model->options.get(), reportEngineMessage,
                                                 model.get());
        if (delegation != nullptr) {
            TfLiteInterpreterOptionsAddDelegate(model->options.get(), &delegation->wrapper);
        }
        model->interpreter.reset(TfLiteInterpreterCreate(model->model.get(), model->options.get()));
    };
    if (delegatedDevice(dev->name)) {
        // The host controls can make the delegate fail, to try the fallback.
        const std::optional<std::string> refused =
            stemlib_host::takeFailure("TfLiteXNNPackDelegateCreate");
        model->delegation = std::make_unique<Delegation>(threads);
        if (model->delegation->xnnpack != nullptr && !refused) {
            build(model->delegation.get());
        }
        if (model->interpreter) {
            const Delegation& d = *model->delegation;
            logService(LOG_INFO, where + std::to_string(d.delegated) + " of " +
                                     counted(d.operators, "operator") +
                                     " delegated to XNNPACK in " +
                                     counted(d.partitions, "partition") + ", " +
                                     std::to_string(d.operators - d.delegated) +
                                     " on the default kernels, " + counted(threads, "thread"));
        } else {
            // A model the delegate cannot take at all still runs, on the default kernels.
            logService(LOG_WARNING,
                       where + "XNNPACK failed (" +
                           (refused                                 ? *refused
                            : model->delegation->xnnpack == nullptr ? std::string("no delegate")
                                                                    : model->engineMessage) +
                           "); every operator on the default kernels, " +
                           counted(threads, "thread"));
            model->delegation.reset();
        }
    }
    if (!model->interpreter) {
        model->engineMessage.clear();
        build(nullptr);
        if (model->interpreter && !delegatedDevice(dev->name)) {
            logService(LOG_INFO, where + "every operator on the default kernels, " +
                                     counted(threads, "thread"));
        }
    }
    if (!model->interpreter) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "TensorFlow Lite cannot build the model: " + model->engineMessage);
    }
    if (TfLiteInterpreterAllocateTensors(model->interpreter.get()) != kTfLiteOk) {
        return fail(LAROD_ERROR_LOAD_MODEL,
                    "TensorFlow Lite cannot prepare the model: " + model->engineMessage);
    }
    const int32_t numInputs = TfLiteInterpreterGetInputTensorCount(model->interpreter.get());
    for (int32_t i = 0; i < numInputs; ++i) {
        TensorInfo info;
        if (!describe(TfLiteInterpreterGetInputTensor(model->interpreter.get(), i), info,
                      problem)) {
            return fail(LAROD_ERROR_LOAD_MODEL, problem);
        }
        model->inputs.push_back(info);
    }
    const int32_t numOutputs = TfLiteInterpreterGetOutputTensorCount(model->interpreter.get());
    for (int32_t i = 0; i < numOutputs; ++i) {
        TensorInfo info;
        if (!describe(TfLiteInterpreterGetOutputTensor(model->interpreter.get(), i), info,
                      problem)) {
            return fail(LAROD_ERROR_LOAD_MODEL, problem);
        }
        model->outputs.push_back(info);
    }

    auto handle = std::make_unique<larodModel>();
    handle->id = model->id;
    handle->name = model->name;
    handle->inputs = model->inputs;
    handle->outputs = model->outputs;
    conn->models[model->id] = std::move(model);
    return handle.release();
}

extern "C" bool larodDeleteModel(larodConnection* conn, larodModel* model, larodError** error) {
    CallRecord record("larodDeleteModel", error,
                      model == nullptr ? std::string("null") : std::string());
    if (model == nullptr) {
        return true;
    }
    if (record.injected(LAROD_ERROR_DELETE_MODEL) ||
        !record.require(conn != nullptr, "the connection is null")) {
        return false;
    }
    if (conn->models.erase(model->id) == 0) {
        record.fail(LAROD_ERROR_MODEL_NOT_FOUND,
                    "model \"" + model->name + "\" is not loaded on this connection");
        return false;
    }
    return true;
}

extern "C" void larodDestroyModel(larodModel** model) {
    CallRecord record("larodDestroyModel", nullptr, nullDetail(model));
    if (model == nullptr || *model == nullptr) {
        return;
    }
    delete *model;
    *model = nullptr;
}

extern "C" size_t larodGetModelNumInputs(const larodModel* model, larodError** error) {
    CallRecord record("larodGetModelNumInputs", error);
    if (record.injected(LAROD_ERROR_MODEL_NOT_FOUND) ||
        !record.require(model != nullptr, "the model is null")) {
        return 0;
    }
    return model->inputs.size();
}

extern "C" size_t larodGetModelNumOutputs(const larodModel* model, larodError** error) {
    CallRecord record("larodGetModelNumOutputs", error);
    if (record.injected(LAROD_ERROR_MODEL_NOT_FOUND) ||
        !record.require(model != nullptr, "the model is null")) {
        return 0;
    }
    return model->outputs.size();
}

// ---------------------------------------------------------------------------------------------
// Tensors

extern "C" larodTensor** larodCreateModelInputs(const larodModel* model, size_t* numTensors,
                                                larodError** error) {
    CallRecord record("larodCreateModelInputs", error);
    if (record.injected(LAROD_ERROR_ALLOC) ||
        !record.require(model != nullptr, "the model is null")) {
        return nullptr;
    }
    record.setDetail(std::to_string(model->inputs.size()));
    return createTensors(model->inputs, Role::Input, numTensors);
}

extern "C" larodTensor** larodCreateModelOutputs(const larodModel* model, size_t* numTensors,
                                                 larodError** error) {
    CallRecord record("larodCreateModelOutputs", error);
    if (record.injected(LAROD_ERROR_ALLOC) ||
        !record.require(model != nullptr, "the model is null")) {
        return nullptr;
    }
    record.setDetail(std::to_string(model->outputs.size()));
    return createTensors(model->outputs, Role::Output, numTensors);
}

extern "C" bool larodDestroyTensors(larodConnection* conn, larodTensor*** tensors,
                                    size_t numTensors, larodError** error) {
    (void)conn; // tensors live on the client side
    CallRecord record("larodDestroyTensors", error);
    if (tensors == nullptr || *tensors == nullptr) {
        record.setDetail("null");
        return true;
    }
    larodTensor** array = *tensors;
    std::string detail = numTensors > 0 && array[0] != nullptr && array[0]->role == Role::Output
                             ? "outputs"
                             : "inputs";
    bool anyBound = false;
    bool anyOpen = false;
    for (std::size_t i = 0; i < numTensors; ++i) {
        if (array[i] != nullptr && array[i]->fd != LAROD_INVALID_FD) {
            anyBound = true;
            anyOpen = anyOpen || descriptorOpen(array[i]->fd);
        }
    }
    if (anyBound) {
        detail += anyOpen ? ", files open" : ", files closed";
    }
    record.setDetail(detail);
    // A requested failure is reported, but the tensors are released all the same.
    const bool failed = record.injected(invalidArgument());
    for (std::size_t i = 0; i < numTensors; ++i) {
        delete array[i];
    }
    delete[] array;
    *tensors = nullptr;
    return !failed;
}

extern "C" const larodTensorDims* larodGetTensorDims(const larodTensor* tensor,
                                                     larodError** error) {
    CallRecord record("larodGetTensorDims", error,
                      tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(tensor != nullptr, "the tensor is null")) {
        return nullptr;
    }
    return &tensor->info.dims;
}

extern "C" const larodTensorPitches* larodGetTensorPitches(const larodTensor* tensor,
                                                           larodError** error) {
    CallRecord record("larodGetTensorPitches", error,
                      tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(tensor != nullptr, "the tensor is null")) {
        return nullptr;
    }
    return &tensor->info.pitches;
}

extern "C" larodTensorDataType larodGetTensorDataType(const larodTensor* tensor,
                                                      larodError** error) {
    CallRecord record("larodGetTensorDataType", error,
                      tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(tensor != nullptr, "the tensor is null")) {
        return LAROD_TENSOR_DATA_TYPE_INVALID;
    }
    return tensor->info.dataType;
}

extern "C" larodTensorLayout larodGetTensorLayout(const larodTensor* tensor, larodError** error) {
    CallRecord record("larodGetTensorLayout", error,
                      tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(tensor != nullptr, "the tensor is null")) {
        return LAROD_TENSOR_LAYOUT_INVALID;
    }
    return tensor->info.layout;
}

extern "C" bool larodGetTensorByteSize(const larodTensor* tensor, size_t* byteSize,
                                       larodError** error) {
    CallRecord record("larodGetTensorByteSize", error,
                      tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(tensor != nullptr && byteSize != nullptr,
                        "the tensor or the size pointer is null")) {
        return false;
    }
    *byteSize = tensor->info.byteSize;
    return true;
}

extern "C" bool larodSetTensorFd(larodTensor* tensor, int fd, larodError** error) {
    CallRecord record("larodSetTensorFd", error, tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(LAROD_ERROR_FD) ||
        !record.require(tensor != nullptr, "the tensor is null")) {
        return false;
    }
    if (fd < 0) {
        record.fail(LAROD_ERROR_FD, "invalid file descriptor " + std::to_string(fd));
        return false;
    }
    tensor->fd = fd;
    return true;
}

extern "C" int larodGetTensorFd(const larodTensor* tensor, larodError** error) {
    CallRecord record("larodGetTensorFd", error, tensor != nullptr ? tensorLabel(tensor) : "null");
    if (record.injected(LAROD_ERROR_FD) ||
        !record.require(tensor != nullptr, "the tensor is null")) {
        return LAROD_INVALID_FD;
    }
    return tensor->fd;
}

// ---------------------------------------------------------------------------------------------
// Parameter maps

extern "C" larodMap* larodCreateMap(larodError** error) {
    CallRecord record("larodCreateMap", error);
    if (record.injected(LAROD_ERROR_ALLOC)) {
        return nullptr;
    }
    return new larodMap();
}

extern "C" void larodDestroyMap(larodMap** map) {
    CallRecord record("larodDestroyMap", nullptr, nullDetail(map));
    if (map == nullptr || *map == nullptr) {
        return;
    }
    delete *map;
    *map = nullptr;
}

extern "C" bool larodMapSetStr(larodMap* map, const char* key, const char* value,
                               larodError** error) {
    CallRecord record("larodMapSetStr", error, key != nullptr ? key : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(map != nullptr && key != nullptr && value != nullptr,
                        "the map, key or value is null")) {
        return false;
    }
    map->integers.erase(key);
    map->strings[key] = value;
    return true;
}

extern "C" bool larodMapSetInt(larodMap* map, const char* key, int64_t value, larodError** error) {
    CallRecord record("larodMapSetInt", error, key != nullptr ? key : "null");
    if (record.injected(invalidArgument()) ||
        !record.require(map != nullptr && key != nullptr, "the map or key is null")) {
        return false;
    }
    map->strings.erase(key);
    map->integers[key] = value;
    return true;
}

// ---------------------------------------------------------------------------------------------
// Jobs

extern "C" larodJobRequest* larodCreateJobRequest(const larodModel* model,
                                                  larodTensor** inputTensors, size_t numInputs,
                                                  larodTensor** outputTensors, size_t numOutputs,
                                                  larodMap* params, larodError** error) {
    (void)params; // the engine takes no job parameters
    CallRecord record("larodCreateJobRequest", error);
    if (record.injected(LAROD_ERROR_ALLOC) ||
        !record.require(model != nullptr, "the model is null") ||
        !checkTensors(inputTensors, numInputs, model->inputs, "input", record) ||
        !checkTensors(outputTensors, numOutputs, model->outputs, "output", record)) {
        return nullptr;
    }
    auto request = std::make_unique<larodJobRequest>();
    request->modelId = model->id;
    for (std::size_t i = 0; i < numInputs; ++i) {
        request->inputs.push_back(*inputTensors[i]);
    }
    for (std::size_t i = 0; i < numOutputs; ++i) {
        request->outputs.push_back(*outputTensors[i]);
    }
    return request.release();
}

extern "C" void larodDestroyJobRequest(larodJobRequest** jobReq) {
    CallRecord record("larodDestroyJobRequest", nullptr, nullDetail(jobReq));
    if (jobReq == nullptr || *jobReq == nullptr) {
        return;
    }
    delete *jobReq;
    *jobReq = nullptr;
}

namespace {

// Fills size bytes from the descriptor, starting at offset 0, without moving its position.
bool readInput(int fd, void* data, std::size_t size, std::string& problem, larodErrorCode& code) {
    auto* bytes = static_cast<std::uint8_t*>(data);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(fd, bytes + done, size - done, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            problem = std::string("cannot read: ") + std::strerror(errno);
            code = errno == EBADF ? LAROD_ERROR_FD : LAROD_ERROR_JOB;
            return false;
        }
        if (got == 0) {
            problem = "the file holds " + std::to_string(done) + " of the tensor's " +
                      std::to_string(size) + " bytes";
            code = LAROD_ERROR_JOB;
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

// Writes size bytes at the descriptor's current position, moving it on.
bool writeOutput(int fd, const void* data, std::size_t size, std::string& problem,
                 larodErrorCode& code) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t put = write(fd, bytes + done, size - done);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            problem = std::string("cannot write: ") + std::strerror(put < 0 ? errno : EIO);
            code = put < 0 && errno == EBADF ? LAROD_ERROR_FD : LAROD_ERROR_JOB;
            return false;
        }
        done += static_cast<std::size_t>(put);
    }
    return true;
}

} // namespace

extern "C" bool larodRunJob(larodConnection* conn, const larodJobRequest* jobReq,
                            larodError** error) {
    CallRecord record("larodRunJob", error);
    auto fail = [&record](larodErrorCode code, const std::string& message) {
        record.fail(code, message);
        return false;
    };
    if (record.injected(LAROD_ERROR_JOB) ||
        !record.require(conn != nullptr && jobReq != nullptr,
                        "the connection or the job request is null")) {
        return false;
    }
    const auto found = conn->models.find(jobReq->modelId);
    if (found == conn->models.end()) {
        return fail(LAROD_ERROR_MODEL_NOT_FOUND,
                    "the job's model is not loaded on this connection");
    }
    ServiceModel& model = *found->second;
    TfLiteInterpreter* interpreter = model.interpreter.get();

    std::string problem;
    larodErrorCode code = LAROD_ERROR_JOB;
    for (std::size_t i = 0; i < jobReq->inputs.size(); ++i) {
        const int fd = jobReq->inputs[i].fd;
        if (fd == LAROD_INVALID_FD) {
            return fail(LAROD_ERROR_FD,
                        "input tensor " + std::to_string(i) + " has no file descriptor");
        }
        TfLiteTensor* tensor = TfLiteInterpreterGetInputTensor(interpreter, static_cast<int>(i));
        if (!readInput(fd, TfLiteTensorData(tensor), TfLiteTensorByteSize(tensor), problem, code)) {
            return fail(code, "input tensor " + std::to_string(i) + ": " + problem);
        }
    }
    model.engineMessage.clear();
    if (TfLiteInterpreterInvoke(interpreter) != kTfLiteOk) {
        return fail(LAROD_ERROR_JOB, "inference failed: " + model.engineMessage);
    }
    for (std::size_t i = 0; i < jobReq->outputs.size(); ++i) {
        const int fd = jobReq->outputs[i].fd;
        if (fd == LAROD_INVALID_FD) {
            return fail(LAROD_ERROR_FD,
                        "output tensor " + std::to_string(i) + " has no file descriptor");
        }
        const TfLiteTensor* tensor =
            TfLiteInterpreterGetOutputTensor(interpreter, static_cast<int>(i));
        if (!writeOutput(fd, TfLiteTensorData(tensor), TfLiteTensorByteSize(tensor), problem,
                         code)) {
            return fail(code, "output tensor " + std::to_string(i) + ": " + problem);
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Host controls

extern "C" void stemlib_host_larod_clear_log(void) {
    CallLog& log = callLog();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.entries.clear();
}

extern "C" char* stemlib_host_larod_log(void) {
    CallLog& log = callLog();
    std::lock_guard<std::mutex> lock(log.mutex);
    std::string text;
    for (const std::string& entry : log.entries) {
        text += entry;
        text += '\n';
    }
    return strdup(text.c_str());
}
