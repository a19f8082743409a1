// The XNNPACK delegate of TensorFlow Lite 2.9, as the engine's C library exports it.
//
// The library (libtensorflowlite_c.so of the engine tarball) exports the delegate's functions,
// but the tarball's headers do not declare them: they are declared here, once, with the 2.9
// options layout (tensorflow/lite/delegates/xnnpack/xnnpack_delegate.h of that release). Used by
// the host inference service and by the model forge; tests check the declarations against the
// library.
#pragma once

#include <tensorflow/lite/c/common.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Enables signed 8-bit quantized operators, per-channel quantized weights included.
#define TFLITE_XNNPACK_DELEGATE_FLAG_QS8 0x00000001
// Enables unsigned 8-bit quantized operators.
#define TFLITE_XNNPACK_DELEGATE_FLAG_QU8 0x00000002
// Runs float operators in half precision (where the processor has it).
#define TFLITE_XNNPACK_DELEGATE_FLAG_FORCE_FP16 0x00000004

struct TfLiteXNNPackDelegateWeightsCache;

typedef struct {
    // Threads of the delegate's thread pool; 0 or 1 runs on the calling thread alone.
    int32_t num_threads;
    // TFLITE_XNNPACK_DELEGATE_FLAG_* bits.
    uint32_t flags;
    // Packed weights shared between delegates; null for none.
    struct TfLiteXNNPackDelegateWeightsCache* weights_cache;
} TfLiteXNNPackDelegateOptions;

TfLiteXNNPackDelegateOptions TfLiteXNNPackDelegateOptionsDefault(void);
// A delegate that TfLiteXNNPackDelegateDelete releases after every interpreter using it.
TfLiteDelegate* TfLiteXNNPackDelegateCreate(const TfLiteXNNPackDelegateOptions* options);
// The delegate's thread pool (a pthreadpool_t), null when it runs on the calling thread.
void* TfLiteXNNPackDelegateGetThreadPool(TfLiteDelegate* delegate);
void TfLiteXNNPackDelegateDelete(TfLiteDelegate* delegate);

#ifdef __cplusplus
}
#endif
